// Whose turn it is in the pool.
#include "platform/linux/thread_pool.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/linux/limits.h"
#include "tests/platform/binder_fixture.h"

namespace kvox::binder {
namespace {

/// The turns of all queues in their order.
struct TurnLog : SharedText {
  Gate gate{true};
};

/// Notes the code of each request; a capital one waits at the gate first.
class NotingQueue : public RequestQueue {
 public:
  NotingQueue(char name, TurnLog* turns, const Credentials& owner = {1, 1})
      : RequestQueue(owner), name_(name), turns_(turns) {}

  void Ask(char code, binder_flags_t flags = 0, size_t bytes = 0) {
    Request request;
    request.code = static_cast<transaction_code_t>(static_cast<unsigned char>(code));
    request.flags = flags;
    request.parcel =
        std::make_unique<AParcel>(std::vector<uint8_t>(bytes), std::vector<AParcel::Object>());
    in_bounds = ThreadPool::Get().Enqueue(*this, std::move(request));
  }
  bool full() const { return ThreadPool::Get().Full(*this); }

  bool in_bounds = true;
  std::atomic<int> rooms = 0;

 private:
  void Serve(Request request) override {
    const auto code = static_cast<char>(request.code);
    if (code <= 'Z') turns_->gate.Pass();
    turns_->Add({name_, code, ' '});
  }
  void OnRoom() override { ++rooms; }

  const char name_;
  TurnLog* const turns_;
};

class ThreadPoolTest : public ::testing::Test {
 protected:
  void TearDown() override { ThreadPool::Get().Stop(); }
  static void Start(uint32_t threads) {
    ASSERT_TRUE(ThreadPool::Get().SetThreadCount(threads));
    ThreadPool::Get().Start();
  }
  void ExpectTurns(const std::string& turns) {
    WaitFor([&] { return turns_.text().size() >= turns.size(); });
    EXPECT_EQ(turns_.text(), turns);
  }

  TurnLog turns_;
  std::shared_ptr<NotingQueue> a_ = std::make_shared<NotingQueue>('a', &turns_);
  std::shared_ptr<NotingQueue> b_ = std::make_shared<NotingQueue>('b', &turns_);
};

TEST_F(ThreadPoolTest, TasksGoFirstThenTheQueuesTakeTurns) {
  for (const char code : {'a', 'b', 'c', 'd'}) a_->Ask(code);
  for (const char code : {'a', 'b'}) b_->Ask(code);
  ThreadPool::Get().Post([&] { turns_.Add("ta "); });
  Start(1);
  ExpectTurns("ta aa ba ab bb ac ad ");
}

TEST_F(ThreadPoolTest, OneWayCallsOfAQueueRunOneAtATime) {
  turns_.gate.Close();
  a_->Ask('A', FLAG_ONEWAY);
  a_->Ask('b', FLAG_ONEWAY);
  a_->Ask('c');
  b_->Ask('d', FLAG_ONEWAY);
  Start(2);
  ExpectTurns("bd ac ");
  turns_.gate.Open();
  ExpectTurns("bd ac aA ab ");
}

TEST_F(ThreadPoolTest, AFullQueueHasRoomAgainWhenHalfIsDone) {
  for (size_t i = 1; i < kPauseRequests; ++i) a_->Ask('a');
  EXPECT_FALSE(a_->full());
  a_->Ask('A');
  EXPECT_TRUE(a_->full());
  b_->Ask('b', 0, kPauseRequestBytes);
  EXPECT_TRUE(b_->full()) << "few, but large";
  turns_.gate.Close();
  Start(1);
  ASSERT_TRUE(WaitFor([&] { return turns_.gate.waiting() == 1; }));
  EXPECT_FALSE(a_->full());
  EXPECT_EQ(a_->rooms, 1);
  turns_.gate.Open();
}

TEST_F(ThreadPoolTest, ABlockedQueueWaitsAndAnOverfullOneIsTold) {
  ThreadPool::Get().SetBlocked(*a_, true);
  for (size_t i = 0; i < kMaxRequests; ++i) a_->Ask('a');
  EXPECT_TRUE(a_->in_bounds);
  a_->Ask('a');
  EXPECT_FALSE(a_->in_bounds);
  b_->Ask('b');
  Start(1);
  ExpectTurns("bb ");
  EXPECT_EQ(ThreadPool::Get().Clear(*a_).size(), kMaxRequests + 1);
  a_->Ask('z');
  ThreadPool::Get().SetBlocked(*a_, false);
  ExpectTurns("bb az ");
}

}  // namespace
}  // namespace kvox::binder
