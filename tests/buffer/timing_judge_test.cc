#include "buffer/timing_judge.h"

#include <gtest/gtest.h>

namespace kvox {
namespace {

using Arrival = TimingVerdict::Arrival;

constexpr KvoxTapFormat kStereo16 = {.sample_rate = 48000, .channels = 2, .bytes_per_sample = 2};
constexpr uint32_t kTenMs = 1920;  // bytes of 480 frames

class TimingJudgeTest : public ::testing::Test {
 protected:
  TimingJudgeTest() { judge_.Judge(now_ns_, kStereo16, kTenMs); }

  TimingVerdict After(double ms) {
    now_ns_ += static_cast<uint64_t>(ms * 1e6);
    return judge_.Judge(now_ns_, kStereo16, kTenMs);
  }

  uint64_t now_ns_ = 1'000'000'000;
  TimingJudge judge_;
};

TEST_F(TimingJudgeTest, AQuarterOfThePeriodEitherWayIsOnTime) {
  EXPECT_EQ(After(7).arrival, Arrival::kEarly);
  EXPECT_FLOAT_EQ(judge_.elapsed_ms(), 7);
  EXPECT_EQ(After(13).arrival, Arrival::kLate);
  EXPECT_EQ(After(7.5).arrival, Arrival::kOnTime);
  EXPECT_EQ(After(12.5).arrival, Arrival::kOnTime);
}

TEST_F(TimingJudgeTest, TwoOfAKindInARowAreASlip) {
  EXPECT_FALSE(After(7).slipped);
  EXPECT_TRUE(After(7).slipped);
  EXPECT_FALSE(After(7).slipped) << "the count starts anew after a slip";
  EXPECT_TRUE(After(7).slipped);
  EXPECT_FALSE(After(13).slipped);
  EXPECT_TRUE(After(13).slipped);
}

TEST_F(TimingJudgeTest, EarlyThenLateOrOnTimeIsNone) {
  for (double ms : {7.0, 13.0, 7.0, 13.0, 7.0, 10.0, 7.0}) EXPECT_FALSE(After(ms).slipped);
}

TEST(TimingJudge, LeavesAloneWhatHasNoPeriod) {
  const struct {
    KvoxTapFormat format;
    uint32_t payload_size;
  } rows[] = {
      {{.sample_rate = 0, .channels = 2, .bytes_per_sample = 2}, kTenMs},
      {{.sample_rate = 48000, .channels = 0, .bytes_per_sample = 2}, kTenMs},
      {{.sample_rate = 48000, .channels = 2, .bytes_per_sample = 0}, kTenMs},
      {{.sample_rate = 48000, .channels = 8, .bytes_per_sample = 4}, 28},
  };
  for (const auto& row : rows) {
    TimingJudge judge;
    for (uint64_t now : {1u, 2u, 3u}) {
      EXPECT_EQ(judge.Judge(now, row.format, row.payload_size).arrival, Arrival::kOnTime);
    }
    EXPECT_EQ(judge.elapsed_ms(), 0);
    EXPECT_EQ(ReportInterval(row.format, row.payload_size), 100u);
  }
}

TEST(ReportInterval, HoldsTwoSecondsOfPacketsAndIsNeverZero) {
  EXPECT_EQ(ReportInterval(kStereo16, kTenMs), 200u);
  EXPECT_EQ(ReportInterval({.sample_rate = 8000, .channels = 1, .bytes_per_sample = 1}, 65472), 1u);
  EXPECT_EQ(ReportInterval({.sample_rate = 0xFFFFFFFF, .channels = 1, .bytes_per_sample = 1}, 1),
            0xFFFFFFFFu);
}

}  // namespace
}  // namespace kvox
