// Clients' commands that meet a recovery, or devices that are away.
#include <poll.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <thread>

#include "tests/service/recovery_fixture.h"

namespace kvox {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

class RecoveryCommandsTest : public RecoveryTest {
 protected:
  FourCc LastBound() const {
    FourCc tap = 0;
    for (size_t i = 0; i < link_.opcodes.size(); ++i) {
      if (link_.opcodes[i] == CMD_KVOX_TAP_BIND_ID) std::memcpy(&tap, link_.sent[i].data(), 4);
    }
    return tap;
  }
};

TEST_F(RecoveryCommandsTest, ClientsMaySwitchABufferThatIsBetweenTwoTries) {
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

TEST_F(RecoveryCommandsTest, ClientsCommandsDuringARecoveryStand) {
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

TEST_F(RecoveryCommandsTest, StartAndStopThatMeetLeaveBuffersAsTheyAreRemembered) {
  io_.interrupted = "tapout1";
  io_.on_open = [&] { Call(&KvoxService::StopIo, 0); };  // tapout0 is on, but not recorded yet
  Call(&KvoxService::StartIo, -1);
  const std::string buffers = Buffers();
  Restart();
  EXPECT_EQ(Buffers(), buffers);
}

TEST_F(RecoveryCommandsTest, AStopHoldsAgainstAStartThatCameEarlier) {
  SetUpChain();
  Call(&KvoxService::StopIo, -1);
  io_.interrupted = "tapout0";
  io_.on_open = [&] { Call(&KvoxService::StopIo, 1); };  // tapout1 is not on yet
  Call(&KvoxService::StartIo, -1);
  for (int restarts = 0; restarts < 2; ++restarts) {
    EXPECT_THAT(Buffers(), HasSubstr("\n  0         tapout0   -         pass      1"));
    EXPECT_THAT(Buffers(), HasSubstr("\n  1         tapout1   -         -         0"));
    Restart();
  }
}

TEST_F(RecoveryCommandsTest, BuffersStartedWhileAwayRunWhenTheyCome) {
  SetUpChain();
  Call(&KvoxService::StopIo, -1);
  Leave("tapout0");
  EXPECT_EQ(StatusOf(Call(&KvoxService::StartIo, 0)), 0);
  EXPECT_EQ(StatusOf(Call(&KvoxService::StartIo, 1)), 0);
  EXPECT_EQ(StatusOf(Call(&KvoxService::StopIo, 1)), 0);
  Arrive("tapout0");
  recovery_->Run();
  EXPECT_THAT(Buffers(), HasSubstr("\n  0         tapout0   -         pass      1"));
  EXPECT_THAT(Buffers(), HasSubstr("\n  0         inject0   pass      -         1"));
  EXPECT_THAT(Buffers(), HasSubstr("\n  1         tapout1   -         -         0"));
  EXPECT_TRUE(link_.wake_lock);
}

TEST_F(RecoveryCommandsTest, ADepartureEndsTheWaitForADeviceThatDoesNotOpen) {
  RemoveNodes({"tapout0"});
  std::thread client([&] { EXPECT_EQ(StatusOf(Call(&KvoxService::StartIo, 0)), 0); });
  ASSERT_TRUE(log_.WaitFor("attempt 1"));
  const auto begin = std::chrono::steady_clock::now();
  Leave("inject0");
  client.join();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(800));
}

TEST_F(RecoveryCommandsTest, StoppingBuffersThatAreAwayForgetsThem) {
  SetUpChain();
  Leave("tapout0");
  Call(&KvoxService::StopIo, 0);
  Arrive("tapout0");
  recovery_->Run();
  EXPECT_THAT(Buffers(), Not(HasSubstr("pass      1")));
  EXPECT_FALSE(link_.wake_lock);
}

TEST_F(RecoveryCommandsTest, AProcessorThatAClientHasConnectedSinceStaysAsTheClientLeftIt) {
  SetUpChain();
  RemoveNodes({"inject0"});
  Restart();
  ASSERT_THAT(Graph(), HasSubstr("pass      pass      -         -         0"));
  EXPECT_EQ(StatusOf(Call(&KvoxService::Connect, Code("pass"), 1, -1)), 0);
  Restart();
  EXPECT_THAT(Graph(), HasSubstr("\n  pass      pass      tapout1   -         0"));
}

TEST_F(RecoveryCommandsTest, AStartDuringTheReplayCoversTheInjectThatIsNotConnectedYet) {
  SetUpChain();
  for (const bool on : {true, false}) {
    Call(on ? &KvoxService::StopIo : &KvoxService::StartIo, 0);
    Leave("inject0");
    Arrive("inject0");
    int status = -1;
    link_.on_send = [&] {  // the first exchange of the taps, before processors
      status = StatusOf(Call(on ? &KvoxService::StartIo : &KvoxService::StopIo, 0));
    };
    recovery_->Run();
    EXPECT_EQ(status, 0);
    for (int restarts = 0; restarts < 2; ++restarts) {
      const char* const end = on ? "1" : "0";
      EXPECT_THAT(Buffers(),
                  HasSubstr(std::string("\n  0         tapout0   -         pass      ") + end));
      EXPECT_THAT(Buffers(),
                  HasSubstr(std::string("\n  0         inject0   pass      -         ") + end));
      Restart();
    }
  }
}

TEST_F(RecoveryCommandsTest, ATapThatAClientBindsAnewGetsItsOtherSettingsBack) {
  SetUpChain();
  RemoveNodes({"inject0"});
  Restart();
  EXPECT_THAT(link_.opcodes, ElementsAre()) << "the tap waits for its inject";
  EXPECT_EQ(StatusOf(Call(&KvoxService::ConnectTap, 2, Code("imic"), 0, 1, -1)), 0);
  EXPECT_THAT(link_.opcodes, ElementsAre(0xCB, 0xCD, 0xCE, 0xCA));
  link_.opcodes.clear();
  EXPECT_EQ(StatusOf(Call(&KvoxService::ConnectTap, 2, Code("imic"), 0, 0, -1)), 0);
  EXPECT_THAT(link_.opcodes, ElementsAre(0xCB, 0xCD)) << "they are there now";
}

TEST_F(RecoveryCommandsTest, ABindingDuringTheReplayIsTheLastOne) {
  link_.taps = {{.tap = MakeFourCc("aaaa"), .core = 2}, {.tap = MakeFourCc("bbbb"), .core = 2}};
  for (const int32_t tap : {Code("bbbb"), Code("aaaa")}) {
    Call(&KvoxService::ConnectTap, 2, tap, 0, 0, 0);
  }
  Leave("tapout0");
  Arrive("tapout0");
  link_.opcodes.clear();
  link_.sent.clear();
  int looks = 0;
  recovery_->on_look = [&] {  // after "aaaa" has been bound once more, too
    if (++looks == 5) Call(&KvoxService::ConnectTap, 2, Code("bbbb"), 0, 0, 0);
  };
  recovery_->Run();
  EXPECT_EQ(LastBound(), MakeFourCc("bbbb"));
  EXPECT_GE(looks, 5);
}

TEST_F(RecoveryCommandsTest, ManyWishesForMissingBuffersKeepNobodyFromStarting) {
  SetUpChain();
  Call(&KvoxService::StopIo, 0);
  int refused = 0;
  for (int number = 2000; refused == 0 && number < 5000; ++number) {
    refused = StatusOf(Call(&KvoxService::StartIo, number)) != 0 ? number : 0;
  }
  EXPECT_EQ(refused, 2000 + 1024) << "what is not remembered is refused";
  EXPECT_EQ(StatusOf(Call(&KvoxService::StartIo, 0)), 0);
  EXPECT_THAT(Buffers(), HasSubstr("\n  0         tapout0   -         pass      1"));
}

TEST_F(RecoveryCommandsTest, ABufferThatLeavesWhileItsDeviceOpensIsOffAfterwards) {
  std::thread gone;
  std::atomic<bool> left = false;
  io_.interrupted = "tapout0";
  io_.on_open = [&] {
    gone = std::thread([&] {
      Leave("tapout0");
      left = true;
    });
    EXPECT_TRUE(log_.WaitFor("xdv-kvox_tapout0 offline"));
    poll(nullptr, 0, 50);
    EXPECT_FALSE(left) << "it has the buffer to switch off first";
  };
  Call(&KvoxService::StartIo, 0);
  gone.join();
  EXPECT_EQ(log_.Count("I Disable buffer tapout0"), 1u);
  EXPECT_FALSE(link_.wake_lock);
}

TEST_F(RecoveryCommandsTest, ATakenOverInjectIsNotWaitedFor) {
  SetUpChain();
  Call(&KvoxService::NewProcessorWithType, Code("bbbb"), Code("pass"));
  RemoveNodes({"inject0"});
  Restart();
  ASSERT_THAT(Graph(), HasSubstr("pass      pass      -         -         0"));
  MakeNodes({"inject0"});
  Call(&KvoxService::Debug, Lines{"buffer_init"});  // restores nothing
  EXPECT_EQ(StatusOf(Call(&KvoxService::Connect, Code("bbbb"), 1, 0)), 0);
  EXPECT_THAT(Graph(), HasSubstr("\n  pass      pass      tapout0   -         1"));
}

TEST_F(RecoveryCommandsTest, ADeviceMayComeBackUnderAnotherSpelling) {
  Call(&KvoxService::StartIo, 1);
  RemoveNodes({"tapout1"});
  MakeNodes({"tapout01"});
  Restart();
  EXPECT_THAT(Buffers(), HasSubstr("\n  1         tapout01  -         -         1"));
  Call(&KvoxService::StartIo, 1);
  Restart();
  EXPECT_EQ(log_.Count("I Restore buffer state tapout"), 1u);
}

TEST_F(RecoveryCommandsTest, CommandsThatNameAMissingTapOutReachItsInject) {
  SetUpChain();
  const auto inject_is = [&](const char* enabled) {
    return HasSubstr(std::string("\n  0         inject0   pass      -         ") + enabled);
  };
  for (const bool start : {false, true}) {
    RemoveNodes({"tapout0"});
    Leave("tapout0");
    Arrive("control");
    recovery_->Run();  // finds the inject, but cannot connect it
    Call(start ? &KvoxService::StartIo : &KvoxService::StopIo, 0);
    MakeNodes({"tapout0"});
    Arrive("tapout0");
    recovery_->Run();
    EXPECT_THAT(Buffers(), inject_is(start ? "1" : "0"));
  }
}

}  // namespace
}  // namespace kvox
