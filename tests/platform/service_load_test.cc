// How a service's clients share the memory that it gives to all.
#include "platform/linux/service_load.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <vector>

#include "platform/linux/limits.h"

namespace kvox::binder {
namespace {

constexpr size_t kLarge = kLargeFrame + 4;

class FakeMember final : public LoadMember {
 public:
  FakeMember(ServiceLoad& load, uid_t user) : load_(load), number_(load.Add(user, self_)) {}
  ~FakeMember() { load_.Remove(number_); }
  FakeMember(const FakeMember&) = delete;
  FakeMember& operator=(const FakeMember&) = delete;

  bool Take(size_t bytes) {
    auto hold = load_.TakeFrame(number_, bytes);
    if (!hold) return false;
    holds_.push_back(std::move(hold));
    return true;
  }
  int TakeAll() {
    int taken = 0;
    while (Take(kLarge)) ++taken;
    return taken;
  }
  void ReturnOne() { holds_.pop_back(); }
  void LeaveUnread(size_t bytes) {
    load_.SetUnread(number_, bytes);
    load_.Relieve();
  }

  int wakes = 0;
  bool overloads = false;

 private:
  void OnLargeFrameMayFit() override { ++wakes; }
  void OnOverload() override { overloads = true; }

  ServiceLoad& load_;
  const std::shared_ptr<FakeMember> self_{this, [](FakeMember*) {}};
  const uint64_t number_;
  std::vector<std::unique_ptr<ServiceLoad::Hold>> holds_;
};

class ServiceLoadTest : public ::testing::Test {
 protected:
  FakeMember& Add(uid_t user) {
    return *members_.emplace_back(std::make_unique<FakeMember>(*load_, user));
  }

  const uid_t some_ = geteuid() + 1;  // an ordinary user
  const std::shared_ptr<ServiceLoad> load_ = std::make_shared<ServiceLoad>();
  std::vector<std::unique_ptr<FakeMember>> members_;
};

TEST_F(ServiceLoadTest, LargeFramesAreSharedAndSomeKept) {
  std::vector<int> taken;
  for (uid_t user = some_; user < some_ + 6; ++user) taken.push_back(Add(user).TakeAll());
  EXPECT_EQ(taken, (std::vector{6, 3, 1, 1, 1, 0}));
  EXPECT_TRUE(Add(some_).Take(kLargeFrame)) << "it is not large";
  EXPECT_EQ(Add(geteuid()).TakeAll(), kLargeFrames.kept);
}

TEST_F(ServiceLoadTest, AFrameThatIsDoneWakesEveryMemberThatMayTryAgain) {
  FakeMember& holder = Add(some_);
  EXPECT_EQ(holder.TakeAll(), 6);
  FakeMember& same_user = Add(some_);
  FakeMember& other = Add(some_ + 1);
  EXPECT_EQ(other.TakeAll(), 3);
  EXPECT_FALSE(same_user.Take(kLarge));
  FakeMember& third = Add(some_ + 2);
  EXPECT_EQ(third.TakeAll(), 1);
  {
    FakeMember gone(*load_, some_);
    EXPECT_FALSE(gone.Take(kLarge));
  }
  FakeMember& third_too = Add(some_ + 2);
  EXPECT_FALSE(third_too.Take(kLarge));
  holder.ReturnOne();
  EXPECT_EQ(third.wakes, 1);
  EXPECT_EQ(third_too.wakes, 1);
  EXPECT_EQ(same_user.wakes, 0) << "its user has its share";
  EXPECT_EQ(other.wakes, 0);
  EXPECT_TRUE(third.Take(kLarge));
  // Requests of a client that does not read are not served: it keeps nobody waiting.
  holder.LeaveUnread(kPauseUnsentBytes + 1);
  EXPECT_EQ(same_user.wakes, 1);
  EXPECT_TRUE(same_user.Take(kLarge));
}

TEST_F(ServiceLoadTest, WhoHoldsTheMostIsCutOffNotWhoIsNext) {
  FakeMember& small = Add(some_);
  FakeMember& large = Add(some_);
  FakeMember& other = Add(some_ + 1);
  ASSERT_TRUE(small.Take(kLargeFrame));
  large.LeaveUnread(kMaxBytesOfAll / 2);
  other.LeaveUnread(kMaxBytesOfAll / 2 - kLargeFrame);
  EXPECT_FALSE(small.overloads || large.overloads || other.overloads);
  ASSERT_TRUE(other.Take(4));
  EXPECT_TRUE(large.overloads) << "the largest of the user with most";
  EXPECT_FALSE(small.overloads || other.overloads);
  other.LeaveUnread(kMaxBytesOfAll - 2 * kLargeFrame);
  EXPECT_FALSE(other.overloads) << "what the first had does not count any more";
  ASSERT_TRUE(small.Take(kLargeFrame));
  EXPECT_TRUE(other.overloads);
  EXPECT_FALSE(small.overloads);
}

}  // namespace
}  // namespace kvox::binder
