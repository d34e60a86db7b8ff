#include "kvox/common/log_ring.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/log_capture.h"

namespace kvox {
namespace {

std::string PopText(LogRing& ring) {
  LogRing::Line line;
  return ring.Pop(line) ? line.text.data() : "(empty)";
}

TEST(LogRing, KeepsOrderThroughManyLapsAndCutsLongLines) {
  LogRing ring;
  for (uint32_t i = 0; i < 5 * LogRing::kCapacity; ++i) {
    ASSERT_TRUE(ring.Push(LogPriority::kInfo, "kvox", std::to_string(i).c_str()));
    ASSERT_EQ(PopText(ring), std::to_string(i));
  }
  ASSERT_TRUE(ring.Push(LogPriority::kInfo, "kvox", std::string(4000, 'x').c_str()));
  EXPECT_EQ(PopText(ring), std::string(kLogRingLineSize - 1, 'x'));
  EXPECT_EQ(PopText(ring), "(empty)");
}

/// Collects lines. When blocked, it acts like a log whose reader has stopped.
class SlowLog : public LogCapture {
 public:
  void Write(LogPriority priority, const char* tag, const char* line) override {
    LogCapture::Write(priority, tag, line);
    blocked_.wait(true);
  }
  void Block() { blocked_ = true; }
  void Unblock() {
    blocked_ = false;
    blocked_.notify_all();
  }

 private:
  std::atomic<bool> blocked_ = false;
};

TEST(DeferredLog, WritersNeverWaitAndEveryLineIsWrittenOrCounted) {
  constexpr int kWriters = 4;
  constexpr int kLines = 2000;
  SlowLog destination;
  {
    DeferredLog log(destination);
    std::vector<std::thread> writers;
    for (int i = 0; i < kWriters; ++i) {
      writers.emplace_back([&log, i] {
        ScopedThreadLog scope(log);
        for (int line = 0; line < kLines; ++line) LogInfo("%d %d", i, line);
      });
    }
    for (std::thread& writer : writers) writer.join();
  }
  std::vector<int> next(kWriters, 0);
  unsigned lost = 0;
  unsigned passed = 0;
  for (const std::string& text : destination.Take()) {
    unsigned losses = 0;
    int writer = 0;
    int line = 0;
    if (text.find("lost") != std::string::npos) {
      ASSERT_EQ(sscanf(text.c_str(), "W %u log lines of I/O threads lost", &losses), 1) << text;
      lost += losses;
      continue;
    }
    ASSERT_EQ(sscanf(text.c_str(), "I %d %d", &writer, &line), 2) << text;
    EXPECT_GE(line, next[static_cast<size_t>(writer)]) << "lines of one thread stay in order";
    next[static_cast<size_t>(writer)] = line + 1;
    ++passed;
  }
  EXPECT_EQ(passed + lost, kWriters * kLines);
}

TEST(DeferredLog, ABlockedLogCostsLinesNotTime) {
  SlowLog destination;
  destination.Block();
  {
    DeferredLog log(destination);
    log.Write(LogPriority::kInfo, "kvox", "first");
    ASSERT_TRUE(destination.WaitFor("first"));  // the log thread now hangs in the destination
    for (uint32_t i = 0; i < LogRing::kCapacity + 7; ++i) {
      log.Write(LogPriority::kInfo, "kvox", "line");
    }
    destination.Unblock();
  }
  EXPECT_EQ(destination.Count("7 log lines"), 1u);
  EXPECT_EQ(destination.Take().size(), 1 + LogRing::kCapacity + 1);
}

TEST(DeferredLog, FlushWaitsForTheLinesButNotForABlockedLog) {
  SlowLog destination;
  DeferredLog log(destination);
  constexpr size_t kLines = 400;
  for (size_t i = 0; i < kLines; ++i) log.Write(LogPriority::kInfo, "kvox", "line");
  log.Flush();
  EXPECT_EQ(destination.Take().size(), kLines);
  destination.Block();
  log.Write(LogPriority::kInfo, "kvox", "stuck");
  log.Flush();  // returns
  destination.Unblock();
}

}  // namespace
}  // namespace kvox
