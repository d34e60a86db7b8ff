// The order in which the pool serves requests.
#include "platform/linux/thread_pool.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "platform/linux/limits.h"
#include "tests/platform/binder_fixture.h"
#include "tests/support/proc.h"

namespace kvox::binder {
namespace {

/// The served requests, in order.
struct ServeLog : SharedText {
  Gate gate{true};
};

/// Notes the code of each request; a capital one waits at the gate first, 'W' as a call that lends
/// its place.
class NotingQueue : public RequestQueue {
 public:
  NotingQueue(char name, ServeLog* served, const Credentials& owner = {1, 1}, bool limited = true)
      : RequestQueue(owner, limited), name_(name), served_(served) {}

  void Ask(char code, binder_flags_t flags = 0, size_t bytes = 0) {
    Request request;
    request.code = static_cast<transaction_code_t>(static_cast<unsigned char>(code));
    request.flags = flags;
    request.parcel =
        std::make_unique<AParcel>(std::vector<uint8_t>(bytes), std::vector<AParcel::Object>());
    in_bounds = ThreadPool::Get().Enqueue(*this, std::move(request));
  }
  bool paused() const { return ThreadPool::Get().Paused(*this); }

  bool in_bounds = true;
  std::atomic<int> resumes = 0;

 private:
  void Serve(Request request) override {
    const auto code = static_cast<char>(request.code);
    if (code == 'W') ThreadPool::Get().SetWaiting(true);
    if (code <= 'Z') served_->gate.Pass();
    if (code == 'W') ThreadPool::Get().SetWaiting(false);
    served_->Add({name_, code, ' '});
  }
  void OnResume() override { ++resumes; }

  const char name_;
  ServeLog* const served_;
};

class ThreadPoolTest : public ::testing::Test {
 protected:
  void TearDown() override {
    served_.gate.Open();
    ThreadPool::Get().Stop();
  }
  static void Start(uint32_t threads) {
    ASSERT_TRUE(ThreadPool::Get().SetThreadCount(threads));
    ThreadPool::Get().Start();
  }
  void ExpectServed(const std::string& served) {
    WaitFor([&] { return served_.text().size() >= served.size(); });
    EXPECT_EQ(served_.text(), served);
  }

  ServeLog served_;
  std::shared_ptr<NotingQueue> a_ = std::make_shared<NotingQueue>('a', &served_);
  std::shared_ptr<NotingQueue> b_ = std::make_shared<NotingQueue>('b', &served_);
};

TEST_F(ThreadPoolTest, TasksGoFirstThenTheQueuesTakeTurns) {
  for (const char code : {'a', 'b', 'c', 'd'}) a_->Ask(code);
  for (const char code : {'a', 'b'}) b_->Ask(code);
  ThreadPool::Get().Post([&] { served_.Add("ta "); });
  Start(1);
  ExpectServed("ta aa ba ab bb ac ad ");
}

TEST_F(ThreadPoolTest, OneWayCallsOfAQueueRunOneAtATime) {
  served_.gate.Close();
  a_->Ask('A', FLAG_ONEWAY);
  a_->Ask('b', FLAG_ONEWAY);
  a_->Ask('c');
  b_->Ask('d', FLAG_ONEWAY);
  Start(2);
  ExpectServed("bd ac ");
  served_.gate.Open();
  ExpectServed("bd ac aA ab ");
}

TEST_F(ThreadPoolTest, CallsThatWaitLeaveTheirPlacesToOthers) {
  served_.gate.Close();
  for (int i = 0; i <= kMaxCallsOfProcess; ++i) a_->Ask('W');
  const auto other = std::make_shared<NotingQueue>('o', &served_, Credentials{2, 2});
  other->Ask('x');
  Start(1);
  ASSERT_TRUE(WaitFor([&] { return served_.gate.waiting() == kMaxCallsOfProcess; }));
  b_->Ask('z');
  other->Ask('y');
  ExpectServed("ox oy ");
  EXPECT_EQ(served_.gate.waiting(), kMaxCallsOfProcess) << "no more of one process";
  served_.gate.Open();
  EXPECT_TRUE(WaitFor([&] { return served_.text().find("bz ") != std::string::npos; }));
}

TEST_F(ThreadPoolTest, UsersWhoseCallsAllWaitLeavePlacesToOthers) {
  served_.gate.Close();
  const uid_t some = geteuid() + 1;
  std::vector<std::shared_ptr<NotingQueue>> queues;
  const auto add = [&](const Credentials& owner) -> NotingQueue& {
    return *queues.emplace_back(std::make_shared<NotingQueue>('q', &served_, owner));
  };
  Start(2);
  int shares = 0;
  for (const int share : {28, 14, 7}) {
    const uid_t user = some + static_cast<uid_t>(queues.size());
    // Processes of another pid namespace have number 0; each connection counts as one.
    for (pid_t process = 0; process < 8; ++process) {
      NotingQueue& queue = add({user, 0});
      for (int i = 0; i < kMaxCallsOfProcess; ++i) queue.Ask('W');
    }
    shares += share;
    ASSERT_TRUE(WaitFor([&] { return served_.gate.waiting() == shares; }))
        << served_.gate.waiting();
  }
  add({some + 99, 1}).Ask('x');
  ExpectServed("qx ");
  add({geteuid(), 1}).Ask('y');
  ExpectServed("qx qy ");
  EXPECT_EQ(served_.gate.waiting(), shares);
  for (const auto& queue : queues) ThreadPool::Get().Clear(*queue);
}

TEST_F(ThreadPoolTest, AClientsOwnThreadsAreNotShared) {
  constexpr int kThreads = 2 * kMaxCallsOfProcess;
  served_.gate.Close();
  const auto own = std::make_shared<NotingQueue>('o', &served_, Credentials{1, 1}, false);
  for (int i = 0; i < kThreads; ++i) own->Ask('A');
  Start(kThreads);
  EXPECT_TRUE(WaitFor([&] { return served_.gate.waiting() == kThreads; }));
  served_.gate.Open();
}

TEST_F(ThreadPoolTest, TheLastThreadGoesToAnotherProcess) {
  served_.gate.Close();
  const auto other = std::make_shared<NotingQueue>('o', &served_, Credentials{2, 2});
  Start(2);
  for (int i = 0; i < 2; ++i) other->Ask('W');
  a_->Ask('A');
  ASSERT_TRUE(WaitFor([&] { return served_.gate.waiting() == 3; }));
  Gate hold(false);
  ThreadPool::Get().Post([&] { hold.Pass(); });
  ASSERT_TRUE(WaitFor([&] { return hold.waiting() == 1; }));
  other->Ask('x');
  a_->Ask('A');
  hold.Open();
  ExpectServed("ox ");
  served_.gate.Open();
  EXPECT_TRUE(WaitFor([&] { return served_.text().size() == 5 * 3; }));
}

TEST_F(ThreadPoolTest, SpareThreadsEndAlsoUnderSteadyCalls) {
  served_.gate.Close();
  Start(1);
  const size_t before = ReadResources(getpid()).threads;
  for (int i = 0; i < kMaxCallsOfProcess; ++i) a_->Ask('W');
  ASSERT_TRUE(WaitFor([&] { return served_.gate.waiting() == kMaxCallsOfProcess; }));
  ASSERT_GT(ReadResources(getpid()).threads, before);
  served_.gate.Open();
  EXPECT_TRUE(WaitFor([&] {
    b_->Ask('s');
    return ReadResources(getpid()).threads <= before;
  }));
}

TEST_F(ThreadPoolTest, AFullQueueHasRoomAgainWhenHalfIsDone) {
  for (size_t i = 1; i < kPauseRequests; ++i) a_->Ask('a');
  EXPECT_FALSE(a_->paused());
  a_->Ask('A');
  EXPECT_TRUE(a_->paused());
  b_->Ask('b', 0, kPauseRequestBytes);
  EXPECT_TRUE(b_->paused()) << "few, but large";
  served_.gate.Close();
  Start(1);
  ASSERT_TRUE(WaitFor([&] { return served_.gate.waiting() == 1; }));
  EXPECT_FALSE(a_->paused());
  EXPECT_EQ(a_->resumes, 1);
  served_.gate.Open();
}

TEST_F(ThreadPoolTest, ABlockedQueueWaitsAndAnOverfullOneIsTold) {
  ThreadPool::Get().SetBlocked(*a_, true);
  for (size_t i = 0; i < kMaxRequests; ++i) a_->Ask('a');
  EXPECT_TRUE(a_->in_bounds);
  a_->Ask('a');
  EXPECT_FALSE(a_->in_bounds);
  b_->Ask('b');
  Start(1);
  ExpectServed("bb ");
  EXPECT_EQ(ThreadPool::Get().Clear(*a_).size(), kMaxRequests + 1);
  a_->Ask('z');
  ThreadPool::Get().SetBlocked(*a_, false);
  ExpectServed("bb az ");
}

}  // namespace
}  // namespace kvox::binder
