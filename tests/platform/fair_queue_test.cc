// Fair shares of the pool and of the log.
#include "platform/linux/fair_queue.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "platform/linux/disconnect_log.h"
#include "platform/linux/limits.h"

namespace kvox::binder {
namespace {

constexpr WorkLimits kMany{.users = {.all = 100, .kept = 0, .of_privileged_user = 100},
                           .process = 100};

std::string PopAll(FairQueue<std::string>* queue, const WorkOwner& finished) {
  std::string order;
  while (queue->HasNext()) {
    order += queue->Pop() + " ";
    queue->Finish(finished);
  }
  return order;
}

TEST(FairQueue, UsersTakeTurnsThenProcessesThenQueues) {
  FairQueue<std::string> queue(kMany);
  for (const char* item : {"a1", "a2", "a3"}) queue.Push({1, 10}, item);
  for (const char* item : {"b1", "b2"}) queue.Push({1, 11}, item);
  for (const char* item : {"c1", "c2"}) queue.Push({2, 20}, item);
  std::string order;
  const WorkOwner owners[] = {{1, 10}, {2, 20}, {1, 11}, {2, 20}, {1, 10}, {1, 11}, {1, 10}};
  for (const WorkOwner& owner : owners) {
    order += queue.Pop() + " ";
    queue.Finish(owner);
  }
  EXPECT_EQ(order, "a1 c1 b1 c2 a2 b2 a3 ");
  EXPECT_FALSE(queue.HasNext());
}

TEST(FairQueue, FewerItemsInFlightGoFirst) {
  FairQueue<std::string> queue(kMany);
  for (const char* item : {"slow1", "slow2", "slow3"}) queue.Push({1, 10}, item);
  queue.Push({1, 11}, "other process");
  EXPECT_EQ(queue.Pop(), "slow1");
  EXPECT_EQ(queue.Pop(), "other process");
  queue.Push({2, 20}, "other user");
  queue.Push({1, 11}, "other process again");
  queue.Finish({1, 11});
  EXPECT_EQ(queue.Pop(), "other user");
  EXPECT_EQ(queue.Pop(), "other process again");
  EXPECT_EQ(queue.Pop(), "slow2");
  EXPECT_EQ(PopAll(&queue, {1, 10}), "slow3 ");
}

TEST(FairQueue, NobodyHasMoreThanAShareInFlight) {
  // An ordinary user gets half of 9 - 2.
  FairQueue<std::string> queue(
      {.users = {.all = 9, .kept = 2, .of_privileged_user = 4}, .process = 2});
  for (const char* item : {"a1", "a2", "a3"}) queue.Push({1, 10}, item);
  for (const char* item : {"b1", "b2"}) queue.Push({1, 11}, item);
  for (const char* next : {"a1", "b1", "a2"}) EXPECT_EQ(queue.Pop(), next);
  EXPECT_FALSE(queue.HasNext()) << "the user has its share";
  queue.Finish({1, 11});
  EXPECT_EQ(queue.Pop(), "b2") << "process 10 still has its share";
  queue.Push({2, 20}, "c1");
  EXPECT_EQ(queue.Pop(), "c1");
  queue.Finish({1, 10});
  EXPECT_EQ(queue.Pop(), "a3");
}

TEST(FairQueue, SharesShrinkAndSomePlacesAreKept) {
  FairQueue<std::string> queue(
      {.users = {.all = 16, .kept = 4, .of_privileged_user = 8}, .process = 100});
  const auto in_flight = [&](uid_t user) {
    int count = 0;
    for (int i = 0; i < 16; ++i) queue.Push({user, 1}, "x");
    for (; queue.HasNext(); ++count) queue.Pop();
    return count;
  };
  const uid_t some = geteuid() + 1;
  std::vector<int> shares;
  for (uid_t user = some; user < some + 6; ++user) shares.push_back(in_flight(user));
  EXPECT_EQ(shares, (std::vector{6, 3, 1, 1, 1, 0}));
  EXPECT_EQ(in_flight(geteuid()), 4);
  queue.Finish({some, 1});
  EXPECT_TRUE(queue.HasNext()) << "for the one that has none";
  for (int i = 0; i < 20; ++i) queue.Push({some, 1, false}, "unlimited");
  EXPECT_EQ(in_flight(some), 1 + 20);
}

TEST(FairQueue, TheLastThreadGoesToAProcessThatOccupiesNone) {
  FairQueue<std::string> queue(kMany);
  for (const char* item : {"a1", "a2"}) queue.Push({1, 10}, item);
  for (const char* item : {"b1", "b2", "b3"}) queue.Push({2, 20}, item);
  EXPECT_EQ(queue.Pop(), "a1");
  for (const char* item : {"b1", "b2"}) {
    EXPECT_EQ(queue.Pop(true), item) << "although it has no fewer in flight";
    queue.SetLent({2, 20}, true);
  }
  queue.SetLent({2, 20}, false);
  EXPECT_EQ(queue.Pop(true), "a2") << "now each occupies one";
}

TEST(DisconnectLog, CountsLinesBeyondTheLimitOfASecond) {
  DisconnectLog log;
  const DisconnectLog::Clock::time_point now{std::chrono::hours(1)};
  bool first_dropped = true;
  for (int i = 0; i < kDisconnectLinesPerSecond; ++i) {
    EXPECT_EQ(log.Line({5, 7}, "nonsense", now, &first_dropped),
              "binder: process 7 of user 5 was cut off: it sent nonsense");
    EXPECT_FALSE(first_dropped);
  }
  EXPECT_EQ(log.Line({5, 7}, "nonsense", now, &first_dropped), "");
  EXPECT_TRUE(first_dropped);
  EXPECT_EQ(log.Line({5, 7}, "nonsense", now, &first_dropped), "");
  EXPECT_FALSE(first_dropped);
  EXPECT_NE(log.Line({5, 7}, "nonsense", now + std::chrono::seconds(1), &first_dropped), "");
  EXPECT_EQ(log.Summary(), "binder: 2 more clients were cut off within a second, too many to name");
}

}  // namespace
}  // namespace kvox::binder
