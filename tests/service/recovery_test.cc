#include "tests/service/service_fixture.h"
#include "tests/support/no_threads.h"

namespace kvox {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

class RecoveryTest : public ServiceTest {
 protected:
  void SetUp() override {
    MakeNodes({"tapout0", "tapout1", "inject0"});
    StartService();
    link_.taps = {{.tap = MakeFourCc("imic"),
                   .core = 2,
                   .sample_rate = 48000,
                   .channels = 2,
                   .bytes_per_sample = 2}};
  }

  void SetUpChain() {
    Call(&KvoxService::NewProcessor, Code("pass"));
    Call(&KvoxService::Connect, Code("pass"), 0, 0);
    Call(&KvoxService::ProcessorEnable, Code("pass"), true);
    Call(&KvoxService::ConnectTap, 2, Code("imic"), 0, 0, 0);
    Call(&KvoxService::TapSetBlockLength, 2, Code("imic"), 0, 960);
    Call(&KvoxService::TapEnable, 2, Code("imic"), 0, true);
    ASSERT_EQ(StatusOf(Call(&KvoxService::StartIo, 0)), 0);
  }

  std::string Graph() { return ProcessorRows(); }
  std::string Buffers() { return BufferRows(); }

  const std::string whole_chain_ = "\n  pass      pass      tapout0   inject0   1";
};

TEST(DeviceNumber, AcceptsWhatBeginsWithANumber) {
  const struct {
    const char* rest;
    std::optional<int> number;
  } rows[] = {{"0", 0},   {"1", 1},  {"3x", 3},  {"01", 1},           {"", {}},
              {"-2", {}}, {"X", {}}, {"00", {}}, {"99999999999", {}}, {"127", 127}};
  for (const auto& row : rows) EXPECT_EQ(DeviceNumber(row.rest), row.number) << row.rest;
}

TEST(RecoveryThread, IsNotThereWithoutAThread) {
  LogCapture log;
  const NoThreads none;
  EXPECT_EQ(RecoveryThread::Start([](RecoveryClock&) {}), nullptr);
  EXPECT_EQ(log.Count("E cannot start the recovery's thread: "), 1u);
}

TEST_F(RecoveryTest, DevicesBecomeBuffersNamedByTheirPath) {
  MakeNodes({"tapout3x", "tapout01", "tapoutX", "tapout-2", "inject7"});
  Restart();
  EXPECT_EQ(log_.Count("I Found 3 tap-out buffers, 2 inject buffers"), 1u);
  EXPECT_THAT(Buffers(), HasSubstr("\n  1         tapout01 "));
  EXPECT_THAT(Buffers(), HasSubstr("\n  3         tapout3x "));
}

TEST_F(RecoveryTest, ADepartureDropsEverythingAndAnArrivalBringsItBack) {
  SetUpChain();
  Leave("inject0");
  EXPECT_THAT(Call(&KvoxService::ListInjectBuffers).lines.back(), "  none");
  EXPECT_FALSE(link_.wake_lock);
  Arrive("inject0");
  Arrive("tapout0");  // the same cycle
  link_.opcodes.clear();
  log_.Take();
  recovery_->Run();
  EXPECT_THAT(Graph(), HasSubstr(whole_chain_));
  EXPECT_THAT(Buffers(), HasSubstr("\n  0         inject0   pass      -         1"));
  EXPECT_THAT(link_.opcodes, ElementsAre(0xCB, 0xCD, 0xCE, 0xCA));
  EXPECT_TRUE(link_.wake_lock);
  const Lines lines = log_.Take();
  Lines restored;
  for (const std::string& line : lines) {
    if (line.find("Restore") != line.npos || line.find("Found") != line.npos)
      restored.push_back(line);
  }
  EXPECT_THAT(
      restored,
      ElementsAre("I Found 2 tap-out buffers, 1 inject buffer", "I Restore tap point state imic.0",
                  "I Restore processor connection state pass", "I Restore buffer state inject0",
                  "I Restore buffer state tapout0"));
}

TEST_F(RecoveryTest, OtherNamesAreNotOurs) {
  service_->HandleDeviceEvent({DeviceEvent::Kind::kLeft, "null"});
  service_->HandleDeviceEvent({DeviceEvent::Kind::kArrived, "kvo"});
  EXPECT_EQ(recovery_, nullptr);
  EXPECT_THAT(Buffers(), HasSubstr("tapout0"));
}

TEST_F(RecoveryTest, TriesFiveTimesAndRunsWithoutDevices) {
  RemoveNodes({"tapout0", "tapout1", "inject0"});
  Restart();
  EXPECT_EQ(recovery_->pauses, 5);
  EXPECT_EQ(log_.Count("I Found 0 tap-out buffers, 0 inject buffers"), 1u);
  EXPECT_EQ(log_.Count("_tapout* did not succeed"), 5u);
  EXPECT_EQ(log_.Count("Note: No Kvox buffers"), 5u);
}

TEST_F(RecoveryTest, SettingsOfAnIdleTapSurviveAnyNumberOfRestarts) {
  Call(&KvoxService::TapSetBlockLength, 2, Code("imic"), 0, 1440);
  Call(&KvoxService::tapSetJitterBuffer, 2, Code("imic"), 0, 9);
  for (int restart = 0; restart < 3; ++restart) {
    Restart();
    EXPECT_THAT(link_.opcodes, ElementsAre(0xCB, 0xCE, 0xCF, 0xCA)) << restart;
  }
  Call(&KvoxService::TapEnable, 2, Code("imic"), 0, false);  // stays idle
  Restart();
  EXPECT_TRUE(link_.opcodes.empty());
}

TEST_F(RecoveryTest, MemoryIsKeptWhileTheCoprocessorRefuses) {
  SetUpChain();
  link_.failures[CMD_KVOX_TAP_BIND_ID] = -1;
  Restart();
  EXPECT_THAT(link_.opcodes, ElementsAre(0xCB));
  link_.failures.clear();
  Restart();
  EXPECT_THAT(link_.opcodes, ElementsAre(0xCB, 0xCD, 0xCE, 0xCA));
}

TEST_F(RecoveryTest, WhatIsMissingWaitsForItsDevice) {
  SetUpChain();
  RemoveNodes({"inject0"});
  bool looked = false;
  Restart({[&] {
    looked = true;
    EXPECT_THAT(Graph(), HasSubstr("pass      pass      -         -         0"));
    EXPECT_EQ(log_.Count("E Error restoring inject buffer inject0: missing"), 1u);
    link_.opcodes.clear();
    MakeNodes({"inject0"});
  }});
  EXPECT_TRUE(looked);
  EXPECT_THAT(Graph(), HasSubstr(whole_chain_)) << "enabled again, as it was";
  EXPECT_THAT(Buffers(), HasSubstr("\n  0         inject0   pass      -         1"));
  EXPECT_THAT(link_.opcodes, ElementsAre(0xCB, 0xCD, 0xCE, 0xCA));
}

TEST_F(RecoveryTest, LateDevicesLeaveTheOthersAlone) {
  SetUpChain();
  Restart({[&] {
    link_.opcodes.clear();
    log_.Take();
    MakeNodes({"tapout5"});
  }});
  EXPECT_THAT(Buffers(), HasSubstr("\n  5         tapout5 "));
  EXPECT_TRUE(link_.opcodes.empty());
  EXPECT_EQ(log_.Count("Disable buffer"), 0u);
  EXPECT_THAT(Graph(), HasSubstr(whole_chain_));
}

TEST_F(RecoveryTest, WhatFailedIsNotTriedAgainForOtherDevices) {
  SetUpChain();
  link_.failures[CMD_KVOX_TAP_BIND_ID] = -1;
  RemoveNodes({"inject0"});
  Restart({[&] {
    link_.failures.clear();
    link_.opcodes.clear();
    log_.Take();
    MakeNodes({"tapout5"});
  }});
  EXPECT_THAT(Buffers(), HasSubstr("\n  5         tapout5 "));
  EXPECT_TRUE(link_.opcodes.empty());
  EXPECT_EQ(log_.Count("Restore"), 0u);
}

TEST_F(RecoveryTest, WhatFailedIsTriedAgainWhenTheControlDeviceComesLast) {
  SetUpChain();
  link_.failures[CMD_KVOX_TAP_BIND_ID] = -1;
  Restart({[&] {
    link_.failures.clear();
    link_.opcodes.clear();
    Arrive("control");
    Call(&KvoxService::Debug, Lines{"buffer_init"});  // its scan is not the recovery's
  }});
  EXPECT_THAT(link_.opcodes, ElementsAre(0xCB, 0xCD, 0xCE, 0xCA));
}

TEST_F(RecoveryTest, TwoMissingDevicesMayComeOneByOne) {
  SetUpChain();
  RemoveNodes({"tapout0", "inject0"});
  Restart({[&] {
             log_.Take();
             MakeNodes({"inject0"});
           },
           [&] {
             EXPECT_TRUE(link_.opcodes.empty()) << "half of it is not enough";
             EXPECT_EQ(log_.Count("Restore processor"), 0u);
             EXPECT_EQ(log_.Count("I Restore buffer state inject0"), 1u);
             MakeNodes({"tapout0"});
           }});
  EXPECT_THAT(Graph(), HasSubstr(whole_chain_));
  EXPECT_THAT(Buffers(), HasSubstr("\n  0         tapout0   -         pass      1"));
  EXPECT_THAT(Buffers(), HasSubstr("\n  0         inject0   pass      -         1"));
  EXPECT_THAT(link_.opcodes, ElementsAre(0xCB, 0xCD, 0xCE, 0xCA));
  EXPECT_TRUE(link_.wake_lock);
}

TEST_F(RecoveryTest, ADeviceThatDoesNotOpenKeepsNothingElseWaiting) {
  SetUpChain();
  RemoveNodes({"inject0"});
  directory_.MakeFifo("xdv-kvox_inject0");  // without a reader
  const auto begin = std::chrono::steady_clock::now();
  Restart({[&] {
    EXPECT_THAT(Buffers(), HasSubstr("\n  0         tapout0   -         pass      1"));
    EXPECT_EQ(log_.Count("inject0 Attempting to reinitialize KVO interface, attempt 1\n"), 1u);
  }});
  EXPECT_EQ(recovery_->now, RecoveryClock::TimePoint() + std::chrono::seconds(4));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1))
      << "no pause but the clock's";
  EXPECT_EQ(log_.Count("I Restore buffer state inject0"), 1u);
  EXPECT_EQ(log_.Count("I Enable buffer inject0 with 1 input"), 1u);
  EXPECT_EQ(log_.Count("E Error opening"), 5u);
  EXPECT_EQ(log_.Count("inject0 Attempting to reinitialize KVO interface, attempt 4\n"), 1u);
  EXPECT_EQ(log_.Count("E Open " + (directory_ / "xdv-kvox_inject0").string()), 1u);
}

TEST_F(RecoveryTest, ClientsMaySwitchABufferThatIsBetweenTwoTries) {
  SetUpChain();
  RemoveNodes({"inject0"});
  directory_.MakeFifo("xdv-kvox_inject0");
  Restart({[&] {
    Call(&KvoxService::StopIo, 0);
    log_.Take();
  }});
  EXPECT_EQ(log_.Count("Attempting"), 0u);
  EXPECT_THAT(Buffers(), HasSubstr("\n  0         inject0   pass      -         0"));
}

TEST_F(RecoveryTest, AProcessorWaitsForItsDeviceThroughFurtherDepartures) {
  SetUpChain();
  RemoveNodes({"inject0"});
  Restart();
  Restart();
  EXPECT_THAT(Graph(), HasSubstr("pass      pass      -         -         0"));
  MakeNodes({"inject0"});
  Restart();
  EXPECT_THAT(Graph(), HasSubstr(whole_chain_));
}

TEST_F(RecoveryTest, EverythingIsRestoredOnceThereIsATapOut) {
  SetUpChain();
  RemoveNodes({"tapout0", "tapout1", "inject0"});
  Restart({[&] { MakeNodes({"inject0"}); },
           [&] {
             EXPECT_EQ(log_.Count("Restore"), 0u);
             MakeNodes({"tapout0"});
           }});
  EXPECT_THAT(Graph(), HasSubstr(whole_chain_));
  EXPECT_TRUE(link_.wake_lock);
}

TEST_F(RecoveryTest, ClientsCommandsDuringARecoveryStand) {
  SetUpChain();
  RemoveNodes({"inject0"});
  Restart({[&] {
    Call(&KvoxService::ProcessorEnable, Code("pass"), false);
    Call(&KvoxService::StopIo, 0);
    Call(&KvoxService::TapEnable, 2, Code("imic"), 0, false);
    link_.opcodes.clear();
    link_.sent.clear();
    MakeNodes({"inject0"});
  }});
  EXPECT_THAT(Graph(), HasSubstr("\n  pass      pass      tapout0   inject0   0"));
  EXPECT_THAT(Buffers(), HasSubstr("\n  0         inject0   pass      -         0"));
  EXPECT_THAT(Buffers(), HasSubstr("\n  0         tapout0   -         pass      0"));
  ASSERT_EQ(link_.opcodes.back(), CMD_KVOX_TAP_ENABLE_ID);
  EXPECT_EQ(link_.sent.back()[6], 0) << "the tap stays off";
}

TEST_F(RecoveryTest, StartAndStopThatMeetLeaveBuffersAsTheyAreRemembered) {
  io_.interrupted = "tapout1";
  io_.on_open = [&] { Call(&KvoxService::StopIo, 0); };  // tapout0 is on, but not recorded yet
  Call(&KvoxService::StartIo, -1);
  const std::string buffers = Buffers();
  Restart();
  EXPECT_EQ(Buffers(), buffers);
}

TEST_F(RecoveryTest, StoppingBuffersThatAreAwayForgetsThem) {
  SetUpChain();
  Leave("tapout0");
  Call(&KvoxService::StopIo, 0);
  Arrive("tapout0");
  recovery_->Run();
  EXPECT_THAT(Buffers(), Not(HasSubstr("pass      1")));
  EXPECT_FALSE(link_.wake_lock);
}

}  // namespace
}  // namespace kvox
