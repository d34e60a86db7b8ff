// The order in which the pool serves requests.
#include "platform/linux/thread_pool.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/linux/limits.h"
#include "tests/platform/binder_fixture.h"

namespace kvox::binder {
namespace {

/// The served requests, in order.
struct ServeLog : SharedText {
  Gate gate{true};
};

/// Notes the code of each request; a capital one waits at the gate first.
class NotingQueue : public RequestQueue {
 public:
  NotingQueue(char name, ServeLog* served, const Credentials& owner = {1, 1})
      : RequestQueue(owner), name_(name), served_(served) {}

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
    if (code <= 'Z') served_->gate.Pass();
    served_->Add({name_, code, ' '});
  }
  void OnResume() override { ++resumes; }

  const char name_;
  ServeLog* const served_;
};

class ThreadPoolTest : public ::testing::Test {
 protected:
  void TearDown() override { ThreadPool::Get().Stop(); }
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
