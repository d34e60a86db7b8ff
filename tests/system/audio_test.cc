#include "tests/system/system_fixture.h"

namespace kvox {
namespace {

using ::testing::HasSubstr;

/// The general-purpose tap genp.0, connected through a passthrough processor.
class AudioTest : public SystemTest {
 protected:
  void SetUp() override {
    // Untimed packets: a busy test machine must not make the timing checks drop any.
    StartSimulator({"--speed", "1.001"});
    StartDaemon();
    for (const char* line : {"NewProcessor pass", "Connect pass 0 0", "ProcessorEnable pass true",
                             "ConnectTap 2 genp 0 0 0", "StartIo 0", "TapEnable 2 genp 0 true"}) {
      Call(line);
    }
  }

  void ExpectExactAudio() {
    EXPECT_TRUE(WaitFor([&] { return Figure("genp.0", "exact") >= 20; }));
    EXPECT_EQ(Figure("genp.0", "different"), 0);
  }
};

TEST_F(AudioTest, ComesBackBitForBit) {
  ExpectExactAudio();
  EXPECT_EQ(Figure("genp.0", "missing"), 0);
  EXPECT_THAT(Call("ShowGraph"), HasSubstr("genp.0 --> tapout0 --> pass --> inject0 --> genp.0"));
  EXPECT_EQ(ReadText(directory_ / "power/wake_lock"), "kvox");
  Call("ProcessorEnable pass false");
  EXPECT_TRUE(WaitFor([&] { return Figure("genp.0", "silent") > 0; }));
  Call("StopIo -1");
  EXPECT_EQ(ReadText(directory_ / "power/wake_unlock"), "kvox");
}

TEST_F(AudioTest, ComesBackByItselfAfterTheCoprocessorWasAway) {
  ExpectExactAudio();
  for (int restart = 1; restart <= 2; ++restart) {
    simulator_->Signal(SIGTERM);
    EXPECT_EQ(simulator_->Wait(), 0) << simulator_->Err();
    EXPECT_TRUE(DaemonLogs("xdv-kvox_control offline", 2 * restart));
    StartSimulator({"--speed", "1.001"});
    ExpectExactAudio();
  }
  EXPECT_THAT(Call("ListProcessors"), HasSubstr("pass      pass      tapout0   inject0   1"));
}

TEST_F(AudioTest, SurvivesJunkOnItsDevices) {
  ExpectExactAudio();
  std::ofstream(directory_ / "dev/xdv-kvox_tapout0") << std::string(4096, 'x') << std::flush;
  std::ofstream(directory_ / "dev/xdv-kvox_tapout0") << "short" << std::flush;
  std::ofstream(directory_ / "dev/xdv-kvox_control") << std::string(100, 'y') << std::flush;
  const int64_t exact = Figure("genp.0", "exact");
  EXPECT_TRUE(WaitFor([&] { return Figure("genp.0", "exact") >= exact + 20; }));
  EXPECT_TRUE(DaemonLogs("tapout0 RX resync", 2));
  Call("TapList 2");
}

}  // namespace
}  // namespace kvox
