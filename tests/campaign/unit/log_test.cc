#include "tests/campaign/log_analyzer.h"

#include <gtest/gtest.h>

#include <fstream>

#include "tests/campaign/loss_report.h"
#include "tests/campaign/streams.h"
#include "tests/support/temp_directory.h"

namespace kvox::campaign {
namespace {

constexpr char kHead[] = "kvox I 11-21 16:14:36 24171 24173 ";

void ReadAll(LogAnalyzer& log, std::initializer_list<const char*> lines) {
  for (const char* line : lines) log.Read(std::string(kHead) + line);
}

TEST(LogAnalyzerTest, AGapHasTheCauseThatCameBefore) {
  LogAnalyzer log;
  ReadAll(log, {"Enable buffer tapout0 (1 processor connected), I/O thread start",
                "tapout0 RX resync", "tapout0 ioProcess RX packet_num jump 0 -> 3",
                "tapout0 ioProcess RX packet_num jump 7 -> 9",
                "tapout0 RX packet is late, period:171.2 ms", "tapout0 RX resync",
                "tapout0 ioProcess RX packet_num jump 20 -> 24",
                "tapout10 ioProcess RX packet_num jump 20 -> 1"});
  const Losses losses = log.LossesOf("tapout0");
  EXPECT_EQ(losses.start, 2u);
  EXPECT_EQ(losses.unknown, 1u);
  EXPECT_EQ(losses.timing, 3u);
  EXPECT_EQ(log.LossesOf("tapout10").unknown, 0u) << "a stream that has restarted";
}

TEST(LogAnalyzerTest, ACauseEndsWhenPacketsFlowAgain) {
  LogAnalyzer log;
  ReadAll(log, {"Enable buffer tapout1 (1 processor connected), I/O thread start",
                "tapout1 RX resync", "tapout1: RX packet_num:40 payload_sz:1600 period:50 ms",
                "tapout1 ioProcess RX packet_num jump 60 -> 62"});
  EXPECT_EQ(log.LossesOf("tapout1").start, 0u);
  EXPECT_EQ(log.LossesOf("tapout1").unknown, 1u);
}

TEST(LogAnalyzerTest, SlowClientsLostLinesAndReportsAreNoted) {
  LogAnalyzer log;
  ReadAll(log, {"art0: the client was too slow for 2 blocks",
                "art0: the client was too slow for 1 block",
                "7 log lines of I/O threads lost: the log could not be written fast enough"});
  EXPECT_EQ(log.SlowBlocks("art0"), 3u);
  EXPECT_EQ(log.SlowBlocks("art1"), 0u);
  EXPECT_EQ(log.lost_lines(), 7u);
  EXPECT_EQ(log.report(), "");
  log.Read("WARNING: ThreadSanitizer: data race (pid=7)");
  log.Read("a.cc:3:5: runtime error: shift exponent 64 is too large");
  EXPECT_EQ(log.report(), "WARNING: ThreadSanitizer: data race (pid=7)") << "the first one";
}

TEST(LogFollowerTest, ReadsLinesThatComeInParts) {
  TempDirectory directory;
  std::ofstream file(directory / "log", std::ios::app);
  LogFollower follower(directory / "log");
  file << "art0: the client was too slow for 1" << std::flush;
  follower.Follow();
  EXPECT_EQ(follower.log().SlowBlocks("art0"), 0u);
  file << "2 blocks\nart0: the client was too slow for 1 block\n" << std::flush;
  follower.Follow();
  EXPECT_EQ(follower.log().SlowBlocks("art0"), 13u);
}

class LossReportTest : public ::testing::Test {
 protected:
  LossReportTest() {
    for (const Stream& stream : Streams()) before_.sim.taps[stream.TapName()] = {};
    after_ = before_;
  }
  TapStats& After(const char* tap) { return after_.sim.taps[tap]; }
  uint64_t Lost() { return LossesBetween(before_, after_).lost; }

  LossSample before_;
  LossSample after_;
};

TEST_F(LossReportTest, PacketsThatTheLogExplainsAreNotLost) {
  After("genp.0").missing = 2;
  EXPECT_EQ(Lost(), 2u);
  ReadAll(after_.log, {"tapout0 RX resync", "tapout0 ioProcess RX packet_num jump 20 -> 22"});
  EXPECT_EQ(Lost(), 1u);
  After("vpdl.0").silent = 1;
  EXPECT_EQ(Lost(), 2u);
  ReadAll(after_.log, {"art0: the client was too slow for 1 block"});
  EXPECT_EQ(Lost(), 1u);
}

TEST_F(LossReportTest, SilenceCountsOnlyWhereAudioIsDue) {
  After("genp.3").silent = 9;  // of a phone booth
  After("adet.0").silent = 9;  // a client may have switched its processor off
  EXPECT_EQ(Lost(), 0u);
  After("genp.0").silent = 1;
  After("adet.0").different = 1;
  EXPECT_EQ(Lost(), 2u);
}

}  // namespace
}  // namespace kvox::campaign
