#include "processors/processor_stats.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <thread>

#include "tests/support/log_capture.h"
#include "tests/support/process.h"

namespace kvox {
namespace {

class ProcessorStatsTest : public ::testing::Test {
 protected:
  /// A block that begins `period` after the last one began and takes `active`, in milliseconds.
  void Block(double period, double active) {
    begin_ms_ += period;
    const auto begin_ns = static_cast<uint64_t>(begin_ms_ * 1e6);
    stats_.StartMeasurement(begin_ns);
    stats_.StopMeasurement(begin_ns, static_cast<uint64_t>((begin_ms_ + active) * 1e6));
  }

  std::vector<float> Read() {
    std::vector<float> measurements;
    EXPECT_TRUE(stats_.GetMeasurements(average_, measurements));
    return measurements;
  }

  double begin_ms_ = 1e6;
  float average_ = -1;
  LogCapture log_;
  KvoxProcessorStats stats_;
};

TEST_F(ProcessorStatsTest, KeepsTheLatestActiveTimesOldestFirst) {
  EXPECT_TRUE(Read().empty());
  EXPECT_EQ(average_, 0);
  ASSERT_TRUE(stats_.SetBufferSize(4));
  for (int i = 1; i <= 3; ++i) Block(10, i);
  EXPECT_EQ(Read(), (std::vector<float>{1, 2, 3}));
  for (int i = 1; i <= 6; ++i) Block(10, i);
  EXPECT_EQ(Read(), (std::vector<float>{3, 4, 5, 6}));
  EXPECT_TRUE(Read().empty()) << "reading clears";
  EXPECT_EQ(average_, 0);
  for (const int before : {5, 9}) {  // half full, or filled again from its start
    ASSERT_TRUE(stats_.SetBufferSize(8));
    for (int i = 0; i < before; ++i) Block(10, 1);
    ASSERT_TRUE(stats_.SetBufferSize(4));
    Block(10, 2);
    EXPECT_EQ(Read(), (std::vector<float>{2})) << "a new size starts afresh";
  }
  ASSERT_TRUE(stats_.SetBufferSize(0));
  Block(10, 1);
  EXPECT_TRUE(Read().empty());
}

TEST_F(ProcessorStatsTest, LongPausesAreNotPeriods) {
  Block(10, 1);  // the first has no period
  Block(10, 1);
  Block(1200, 1);
  Block(20, 1);
  Block(30, 1);
  Read();
  EXPECT_FLOAT_EQ(average_, 25) << "a pause restarts the average";
  ASSERT_TRUE(stats_.Reset());
  Block(10, 1);
  Read();
  EXPECT_EQ(average_, 0) << "a reset forgets when the last block began";
}

TEST_F(ProcessorStatsTest, NoMeasurementSpansAReset) {
  ASSERT_TRUE(stats_.SetBufferSize(4));
  Block(10, 1);
  stats_.StartMeasurement(static_cast<uint64_t>((begin_ms_ += 10) * 1e6));
  ASSERT_TRUE(stats_.Reset());
  stats_.StopMeasurement(static_cast<uint64_t>(begin_ms_ * 1e6),
                         static_cast<uint64_t>((begin_ms_ + 5) * 1e6));
  Block(10, 2);
  EXPECT_EQ(Read(), (std::vector<float>{2}));
  EXPECT_EQ(average_, 0) << "the block that was reset has no start either";
}

TEST_F(ProcessorStatsTest, AverageRestartsAfterTenThousandPeriods) {
  Block(10, 0);
  for (int i = 0; i < 9999; ++i) Block(10, 0);
  for (int i = 0; i < 3; ++i) Block(50, 0);
  Read();
  EXPECT_FLOAT_EQ(average_, 50) << "the ten thousandth is the first of the next average";
}

TEST_F(ProcessorStatsTest, ReportsHealthOnceASecond) {
  const struct {
    double active;
    double jitter;
    const char* line;
  } rows[] = {
      {5, 0, "I Period min/max/avg: 10.000/10"},
      {9.5, 0, "W Warning: Period min/max/avg: "},
      {1, 3, "W Warning: Period min/max/avg: "},
  };
  for (const auto& row : rows) {
    Block(5000, row.active);
    log_.Take();
    for (int i = 0; i < 101; ++i) Block(10 + (i % 2 == 0 ? row.jitter : -row.jitter), row.active);
    const auto lines = log_.Take();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].find(row.line), 0u) << lines[0];
  }
}

TEST_F(ProcessorStatsTest, TheIoThreadNeverWaitsForAReader) {
  // A reader holds the flag most of the time; measurements may be lost, but the figures stay
  // plausible, and nothing sleeps.
  std::atomic<int> rounds = 0;
  std::atomic<bool> done = false;
  std::thread reader([&] {
    std::vector<float> measurements;
    float average = 0;
    while (!done) {
      stats_.SetBufferSize(++rounds % 2 == 0 ? 64 : 1u << 20);
      if (!stats_.GetMeasurements(average, measurements)) continue;
      for (const float active : measurements) EXPECT_EQ(active, 0.0f);
      stats_.Reset();
    }
  });
  const auto sleeps = [] {
    rusage usage{};
    EXPECT_EQ(getrusage(RUSAGE_THREAD, &usage), 0);
    return usage.ru_nvcsw;
  };
  EXPECT_TRUE(YieldUntil([&] { return rounds > 0; }));
  const auto before = sleeps();
  for (int i = 0; rounds < 40 && i < 100'000'000; ++i) {
    stats_.StartMeasurement(1);
    stats_.StopMeasurement(1, 1);
  }
  // Waiting for the reader would take a sleep or two a round. The kernel has a few of its own,
  // while the reader changes the memory map.
  EXPECT_LT(sleeps() - before, 10);
  done = true;
  reader.join();
}

}  // namespace
}  // namespace kvox
