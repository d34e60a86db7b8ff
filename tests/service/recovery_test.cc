#include "tests/service/recovery_fixture.h"

namespace kvox {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

TEST(DeviceNumber, AcceptsWhatBeginsWithANumber) {
  const struct {
    const char* rest;
    std::optional<int> number;
  } rows[] = {{"0", 0},   {"1", 1},  {"3x", 3},  {"01", 1},           {"", {}},
              {"-2", {}}, {"X", {}}, {"00", {}}, {"99999999999", {}}, {"127", 127}};
  for (const auto& row : rows) EXPECT_EQ(DeviceNumber(row.rest), row.number) << row.rest;
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
  for (const char* name : {"tapout", "tapoutX", "tapout1.bak", "injector0", "controls"})
    Leave(name);
  EXPECT_EQ(recovery_, nullptr);
  EXPECT_THAT(Buffers(), HasSubstr("tapout0"));
}

TEST_F(RecoveryTest, ANodeThatLeavesForGoodCostsTwoSecondsOfAudio) {
  SetUpChain();
  RemoveNodes({"tapout1"});
  Leave("tapout1");
  EXPECT_THAT(Graph(), Not(HasSubstr(whole_chain_)));
  recovery_->Run();
  EXPECT_EQ(recovery_->now, RecoveryClock::TimePoint() + std::chrono::seconds(2));
  EXPECT_THAT(Graph(), HasSubstr(whole_chain_));
  EXPECT_TRUE(link_.wake_lock);
  RemoveNodes({"inject0"});
  Leave("inject0");
  log_.Take();
  recovery_->Run();
  EXPECT_EQ(log_.Count("Found"), 0u) << "there is nothing to do until an inject comes";
}

TEST_F(RecoveryTest, SettingsOfAnIdleTapSurviveAnyNumberOfRestarts) {
  Call(&KvoxService::TapSetBlockLength, 2, Code("imic"), 0, 1440);
  for (const int jitter_buffer : {9, 0}) {
    Call(&KvoxService::tapSetJitterBuffer, 2, Code("imic"), 0, jitter_buffer);
    for (int restart = 0; restart < 2; ++restart) {
      Restart();
      EXPECT_THAT(link_.opcodes, ElementsAre(0xCB, 0xCE, 0xCF, 0xCA)) << jitter_buffer;
      EXPECT_EQ(link_.sent[2][8], jitter_buffer);
    }
  }
  Call(&KvoxService::TapEnable, 2, Code("imic"), 0, false);  // stays idle
  Restart();
  EXPECT_TRUE(link_.opcodes.empty());
}

TEST_F(RecoveryTest, MemoryIsKeptWhileTheCoprocessorRefuses) {
  SetUpChain();
  link_.failures[CMD_KVOX_TAP_BIND_ID] = -7;
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

TEST_F(RecoveryTest, ABufferReturnsToTheTapThatWasBoundLast) {
  link_.taps = {{.tap = MakeFourCc("aaaa"), .core = 2}, {.tap = MakeFourCc("bbbb"), .core = 2}};
  for (const int32_t tap : {Code("bbbb"), Code("aaaa")}) {
    Call(&KvoxService::ConnectTap, 2, tap, 0, 0, 0);
  }
  const auto bound = [this] {
    std::vector<FourCc> taps;
    for (size_t i = 0; i < link_.opcodes.size(); ++i) {
      if (link_.opcodes[i] != CMD_KVOX_TAP_BIND_ID) continue;
      std::memcpy(&taps.emplace_back(), link_.sent[i].data(), sizeof(FourCc));
    }
    return taps;
  };
  constexpr FourCc kA = MakeFourCc("aaaa");
  constexpr FourCc kB = MakeFourCc("bbbb");
  Restart();
  EXPECT_THAT(bound(), ElementsAre(kA, kB, kA));
  link_.lost = 6;
  Restart();
  EXPECT_THAT(bound(), ElementsAre(kA, kB, kA, kA)) << "without a reply it is bound again";
}

TEST(RestorePlan, BindsOnceMoreWhatLosesABufferToAnother) {
  const TapKey keys[] = {TapKey(2, MakeFourCc("genp"), 0), TapKey(2, MakeFourCc("genp"), 1),
                         TapKey(2, MakeFourCc("genp"), 2)};
  const auto bound_to = [](uint8_t tapout, uint8_t inject) {
    KvoxTapPointState state;
    state.info.tapout_buffer = tapout;
    state.info.inject_buffer = inject;
    return state;
  };
  // Key 0 took the inject of key 2, then key 1 took the tap-out of key 0.
  SavedTables saved;
  saved.taps = {
      {keys[0], bound_to(0, 0)}, {keys[1], bound_to(0, 1)}, {keys[2], bound_to(kNoBuffer, 0)}};
  saved.bound = {{keys[2], 1}, {keys[0], 2}, {keys[1], 3}};
  EXPECT_THAT(BoundOnceMore(saved, {keys[2]}), ElementsAre(keys[0], keys[1]));
  EXPECT_THAT(BoundOnceMore(saved, {keys[0]}), ElementsAre(keys[1]));
  EXPECT_THAT(BoundOnceMore(saved, {keys[1]}), ElementsAre());
  EXPECT_THAT(BoundOnceMore(saved, {keys[0], keys[1], keys[2]}), ElementsAre(keys[0], keys[1]));
}

TEST_F(RecoveryTest, AnInjectReturnsToTheProcessorThatTookItOver) {
  for (const int32_t id : {Code("bbbb"), Code("aaaa")}) {
    Call(&KvoxService::NewProcessorWithType, id, Code("pass"));
    Call(&KvoxService::Connect, id, 0, 0);
  }
  const std::string before = Graph();
  ASSERT_THAT(before, HasSubstr("aaaa      pass      tapout0   inject0"));
  Restart();
  EXPECT_EQ(Graph(), before);
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

TEST_F(RecoveryTest, ATapWithOneBufferWaitsForThatOneOnly) {
  Call(&KvoxService::ConnectTap, 2, Code("imic"), 0, 0, -1);
  Call(&KvoxService::ConnectTap, 2, Code("sspk"), 0, -1, 0);
  RemoveNodes({"tapout0", "inject0"});
  Restart({[&] {
             link_.opcodes.clear();
             MakeNodes({"inject0"});
           },
           [&] {
             EXPECT_THAT(link_.opcodes, ElementsAre(0xCB, 0xCA)) << "sspk";
             link_.opcodes.clear();
             MakeNodes({"tapout0"});
           }});
  EXPECT_THAT(link_.opcodes, ElementsAre(0xCB, 0xCD, 0xCA)) << "imic";
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
  Call(&KvoxService::TapSetBlockLength, 2, Code("genp"), 0, 1440);
  RemoveNodes({"tapout0", "tapout1", "inject0"});
  Restart({[&] { MakeNodes({"inject0"}); },
           [&] {
             EXPECT_EQ(log_.Count("Restore"), 0u);
             MakeNodes({"tapout0"});
           }});
  EXPECT_THAT(Graph(), HasSubstr(whole_chain_));
  EXPECT_EQ(log_.Count("I Restore tap point state genp.0"), 1u) << "also what needs no buffer";
  EXPECT_TRUE(link_.wake_lock);
}

TEST_F(RecoveryTest, LostEventsAreADepartureAndAnArrivalOfEverything) {
  SetUpChain();
  service_->HandleDeviceEvent({DeviceEvent::Kind::kAllGone, "xdv-kvox_control"});
  EXPECT_THAT(Call(&KvoxService::ListTapOutBuffers).lines.back(), "  none\n");
  Arrive("control");
  recovery_->Run();
  EXPECT_THAT(Graph(), HasSubstr(whole_chain_));
}

}  // namespace
}  // namespace kvox
