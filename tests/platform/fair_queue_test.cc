// Fair shares of the pool and of the log.
#include "platform/linux/fair_queue.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/linux/disconnect_log.h"
#include "platform/linux/limits.h"

namespace kvox::binder {
namespace {

std::string PopAll(FairQueue<std::string>* queue, const Credentials& finished) {
  std::string order;
  while (!queue->empty()) {
    order += queue->Pop() + " ";
    queue->Finish(finished);
  }
  return order;
}

TEST(FairQueue, UsersTakeTurnsThenProcessesThenQueues) {
  FairQueue<std::string> queue;
  for (const char* item : {"a1", "a2", "a3"}) queue.Push({1, 10}, item);
  for (const char* item : {"b1", "b2"}) queue.Push({1, 11}, item);
  for (const char* item : {"c1", "c2"}) queue.Push({2, 20}, item);
  std::string order;
  const Credentials owners[] = {{1, 10}, {2, 20}, {1, 11}, {2, 20}, {1, 10}, {1, 11}, {1, 10}};
  for (const Credentials& owner : owners) {
    order += queue.Pop() + " ";
    queue.Finish(owner);
  }
  EXPECT_EQ(order, "a1 c1 b1 c2 a2 b2 a3 ");
  EXPECT_TRUE(queue.empty());
}

TEST(FairQueue, FewerItemsInFlightGoFirst) {
  FairQueue<std::string> queue;
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
