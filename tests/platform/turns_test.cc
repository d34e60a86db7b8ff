// Shares of the pool, and of the log.
#include "platform/linux/turns.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/linux/cut_off_log.h"
#include "platform/linux/limits.h"

namespace kvox::binder {
namespace {

std::string TakeAll(Turns<std::string>* turns, const Credentials& finished) {
  std::string order;
  while (!turns->empty()) {
    order += turns->Take() + " ";
    turns->Done(finished);
  }
  return order;
}

TEST(Turns, UsersTakeThemThenProcessesThenQueues) {
  Turns<std::string> turns;
  for (const char* item : {"a1", "a2", "a3"}) turns.Add({1, 10}, item);
  for (const char* item : {"b1", "b2"}) turns.Add({1, 11}, item);
  for (const char* item : {"c1", "c2"}) turns.Add({2, 20}, item);
  std::string order;
  const Credentials owners[] = {{1, 10}, {2, 20}, {1, 11}, {2, 20}, {1, 10}, {1, 11}, {1, 10}};
  for (const Credentials& owner : owners) {
    order += turns.Take() + " ";
    turns.Done(owner);
  }
  EXPECT_EQ(order, "a1 c1 b1 c2 a2 b2 a3 ");
  EXPECT_TRUE(turns.empty());
}

TEST(Turns, WhoHasLessUnderWayGoesFirst) {
  Turns<std::string> turns;
  for (const char* item : {"slow1", "slow2", "slow3"}) turns.Add({1, 10}, item);
  turns.Add({1, 11}, "other process");
  EXPECT_EQ(turns.Take(), "slow1");
  EXPECT_EQ(turns.Take(), "other process");
  turns.Add({2, 20}, "other user");
  turns.Add({1, 11}, "other process again");
  turns.Done({1, 11});
  EXPECT_EQ(turns.Take(), "other user");
  EXPECT_EQ(turns.Take(), "other process again");
  EXPECT_EQ(turns.Take(), "slow2");
  EXPECT_EQ(TakeAll(&turns, {1, 10}), "slow3 ");
}

TEST(CutOffLog, CountsWhatIsTooMuchForASecond) {
  CutOffLog log;
  const CutOffLog::Clock::time_point now{std::chrono::hours(1)};
  bool first_left_out = true;
  for (int i = 0; i < kCutOffLinesPerSecond; ++i) {
    EXPECT_EQ(log.Line({5, 7}, "nonsense", now, &first_left_out),
              "binder: process 7 of user 5 was cut off: it sent nonsense");
    EXPECT_FALSE(first_left_out);
  }
  EXPECT_EQ(log.Line({5, 7}, "nonsense", now, &first_left_out), "");
  EXPECT_TRUE(first_left_out);
  EXPECT_EQ(log.Line({5, 7}, "nonsense", now, &first_left_out), "");
  EXPECT_FALSE(first_left_out);
  EXPECT_NE(log.Line({5, 7}, "nonsense", now + std::chrono::seconds(1), &first_left_out), "");
  EXPECT_EQ(log.Rest(), "binder: 2 more clients were cut off within a second, too many to name");
}

}  // namespace
}  // namespace kvox::binder
