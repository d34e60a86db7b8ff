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

TEST_F(AudioTest, StalledInjectsAndRefusedConnectsCostTheOthersNothing) {
  for (const char* line : {"NewProcessorWithType aaaa pass", "NewProcessorWithType zzzz pass"}) {
    Call(line);
  }
  Call("Connect aaaa 0 20");
  Call("Connect zzzz 0 21");
  Call("ProcessorEnable aaaa true");
  Call("ProcessorEnable zzzz true");
  Call("StartIo 0");
  ExpectExactAudio();
  Fault("inject-stall device=inject20");
  Fault("inject-stall device=inject21");
  ASSERT_TRUE(DaemonLogs("writePacketToKvo returned status"));
  const int64_t sent = Figure("genp.0", "sent");
  const auto audio_flows_on = [&](int64_t packets) {
    return WaitFor([&] { return Figure("genp.0", "exact") >= sent + packets; });
  };
  EXPECT_TRUE(audio_flows_on(50));
  for (const char* buffers : {"20 99", "99 0", "1 99"}) {
    EXPECT_EQ(Run(Words(std::string("call Connect pass ") + buffers)).exit_status, 1);
  }
  EXPECT_TRUE(audio_flows_on(200));
  for (const char* lost : {"missing", "dropped", "silent", "different"}) {
    EXPECT_EQ(Figure("genp.0", lost), 0) << lost;
  }
}

TEST_F(AudioTest, FlowsAgainWithoutANodeThatLeavesForGood) {
  ExpectExactAudio();
  Fault("node-gone device=tapout41");
  ASSERT_TRUE(DaemonLogs("xdv-kvox_tapout41 offline"));
  const int64_t exact = Figure("genp.0", "exact");
  EXPECT_TRUE(WaitFor([&] { return Figure("genp.0", "exact") >= exact + 20; }));
  EXPECT_TRUE(DaemonLogs("Found 7 tap-out buffers, 8 inject buffers"));
}

/// The wish of a client that does not know that devices are away.
TEST_F(AudioTest, WhatIsStartedWhileDevicesAreAwayFlowsWhenTheyCome) {
  ExpectExactAudio();
  Call("StopIo 0");
  Fault("restart gap=1");
  ASSERT_TRUE(DaemonLogs("xdv-kvox_tapout0 offline"));
  Call("StartIo 0");
  const int64_t exact = Figure("genp.0", "exact");
  EXPECT_TRUE(WaitFor([&] { return Figure("genp.0", "exact") >= exact + 20; }));
}

class ListTest : public SystemTest {};

TEST_F(ListTest, OneThatComesSlowlyIsWhole) {
  std::ofstream scenario(directory_ / "taps.toml");
  scenario << "cores = [2]\ntapouts = [41]\ninjects = [0]\n";
  for (int i = 0; i < 12; ++i) {
    scenario << "[[tap]]\nname = \"genp\"\nindex = " << i << "\ncore = 2\n";
  }
  scenario.close();
  StartSimulator({"--scenario", directory_ / "taps.toml"});
  StartDaemon();
  const std::string list = Call("TapList 2");
  EXPECT_THAT(list, HasSubstr("genp.11"));
  Fault("reply-late delay=0.4 count=200");
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(Call("TapList 2"), list);
  EXPECT_GT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
}

}  // namespace
}  // namespace kvox
