// What a recovery tries again, how often and when, and its thread.
#include <latch>
#include <thread>

#include "tests/service/recovery_fixture.h"
#include "tests/support/no_threads.h"
#include "tests/support/process.h"

namespace kvox {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class RecoveryRetriesTest : public RecoveryTest {};

TEST(RecoveryThread, IsNotThereWithoutAThread) {
  LogCapture log;
  const NoThreads none;
  EXPECT_EQ(RecoveryThread::Start([](RecoveryClock&) {}), nullptr);
  EXPECT_EQ(log.Count("E cannot start the recovery's thread: "), 1u);
}

TEST(RecoveryThread, WakesForEachOfItsReasons) {
  using std::chrono::milliseconds;
  using Wake = RecoveryClock::Wake;
  const auto forever = RecoveryClock::TimePoint::max();
  std::atomic<int> step = 0;
  const auto run = RecoveryThread::Start([&](RecoveryClock& clock) {
    EXPECT_EQ(clock.WaitForFirstArrival(clock.Now() + milliseconds(1)), Wake::kTime);
    EXPECT_EQ(clock.WaitForArrivals(clock.Now() + milliseconds(1)), Wake::kTime);
    step = 1;
    EXPECT_EQ(clock.WaitForFirstArrival(forever), Wake::kArrivals);
    EXPECT_EQ(clock.WaitForArrivals(clock.Now() + milliseconds(1)), Wake::kTime) << "too early";
    clock.ScanBegins();
    step = 2;
    EXPECT_EQ(clock.WaitForArrivals(forever), Wake::kArrivals);
    step = 3;
    EXPECT_FALSE(clock.Pause(std::chrono::minutes(10)));
    EXPECT_EQ(clock.WaitForArrivals(forever), Wake::kStopping);
    step = 4;
  });
  EXPECT_TRUE(WaitFor([&] { return step == 1; }));
  run->NoteArrival();
  EXPECT_TRUE(WaitFor([&] { return step == 2; }));
  run->NoteReady();
  EXPECT_TRUE(WaitFor([&] { return step == 3; }));
  run->RequestStop();
  EXPECT_TRUE(WaitFor([&] { return step == 4; }));
}

TEST(ArrivalWatch, WaitsForHalfASecondWithoutArrivals) {
  ArrivalWatch arrivals;
  const ArrivalWatch::TimePoint now{std::chrono::hours(1)};
  EXPECT_EQ(arrivals.Due(), ArrivalWatch::TimePoint::max());
  arrivals.NoteArrival(now - std::chrono::seconds(1));
  arrivals.NoteArrival(now);
  EXPECT_EQ(arrivals.Due(), now + std::chrono::milliseconds(500));
  arrivals.NoteReady();
  EXPECT_LT(arrivals.Due(), now);
  arrivals.ScanBegins();
  EXPECT_FALSE(arrivals.arrived());
}

TEST_F(RecoveryRetriesTest, TriesFiveTimesAndRunsWithoutDevices) {
  RemoveNodes({"tapout0", "tapout1", "inject0"});
  Restart();
  EXPECT_EQ(recovery_->pauses, 5);
  EXPECT_EQ(log_.Count("I Found 0 tap-out buffers, 0 inject buffers"), 1u);
  EXPECT_EQ(log_.Count("_tapout* did not succeed"), 5u);
  EXPECT_EQ(log_.Count("Note: No Kvox buffers"), 5u);
}

TEST_F(RecoveryRetriesTest, WhatFailedIsNotTriedAgainForOtherDevices) {
  SetUpChain();
  link_.failures[CMD_KVOX_TAP_BIND_ID] = -7;
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

TEST_F(RecoveryRetriesTest, WhatFailedIsTriedAgainWhenTheControlDeviceComesLast) {
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

TEST_F(RecoveryRetriesTest, AControlDeviceThatReturnsOrOpensBringsAllTriesBack) {
  SetUpChain();
  link_.failures[CMD_KVOX_TAP_BIND_ID] = -1;
  std::function<void()> arrive_last = [&] {
    if (link_.opcodes.size() == 6) return Arrive("control");
    link_.on_send = arrive_last;
  };
  link_.on_send = arrive_last;
  Restart();
  EXPECT_EQ(link_.opcodes.size(), 12u);
  service_->HandleDeviceEvent({DeviceEvent::Kind::kOpened, "xdv-kvox_control"});
  EXPECT_EQ(recovery_->WaitForArrivals(RecoveryClock::TimePoint::max()),
            RecoveryClock::Wake::kArrivals);
}

TEST(ArrivalWatch, RightsAreNoArrivalAndWhatIsReadyWaitsForNothing) {
  const ArrivalWatch::TimePoint now(std::chrono::seconds(100));
  ArrivalWatch watch;
  watch.NoteRights(now);
  EXPECT_FALSE(watch.arrived());
  EXPECT_EQ(watch.Due(), now + std::chrono::milliseconds(500));
  watch.NoteReady();
  EXPECT_LT(watch.Due(), now);
  watch.NoteArrival(now);
  EXPECT_TRUE(watch.arrived());
  watch.ScanBegins();
  EXPECT_FALSE(watch.arrived());
  EXPECT_EQ(watch.Due(), ArrivalWatch::TimePoint::max());
}

TEST_F(RecoveryRetriesTest, ATapWithoutAReplyIsTriedEachSecondFiveTimes) {
  SetUpChain();
  link_.failures[CMD_KVOX_TAP_BIND_ID] = -1;
  Restart();
  EXPECT_THAT(link_.opcodes, ElementsAre(0xCB, 0xCB, 0xCB, 0xCB, 0xCB, 0xCB));
  EXPECT_EQ(recovery_->now, RecoveryClock::TimePoint() + std::chrono::milliseconds(5500));
  int silent = 2;
  std::function<void()> reply_later = [&] {
    if (silent-- == 0) link_.failures.clear();
    link_.on_send = reply_later;
  };
  link_.on_send = reply_later;
  Restart();
  link_.on_send = nullptr;
  EXPECT_THAT(link_.opcodes, ElementsAre(0xCB, 0xCB, 0xCB, 0xCD, 0xCE, 0xCA));
}

TEST_F(RecoveryRetriesTest, AMuteCoprocessorDelaysNothingElse) {
  SetUpChain();
  for (const int32_t tap : {Code("aaaa"), Code("bbbb")}) {
    link_.taps.push_back({.tap = static_cast<FourCc>(tap), .core = 2});
    Call(&KvoxService::ConnectTap, 2, tap, 0, 1, -1);
  }
  link_.failures[CMD_KVOX_TAP_BIND_ID] = -1;
  Restart();
  const Lines lines = log_.Take();
  const auto buffer = std::find_if(lines.begin(), lines.end(), [](const std::string& line) {
    return line.starts_with("I Restore buffer state");
  });
  EXPECT_EQ(std::count_if(lines.begin(), buffer,
                          [](const std::string& line) {
                            return line.starts_with("I Restore tap point state");
                          }),
            1);
  EXPECT_THAT(link_.opcodes, Each(CMD_KVOX_TAP_BIND_ID));
  EXPECT_EQ(link_.opcodes.size(), 3 * 6u);
}

TEST_F(RecoveryRetriesTest, ADeviceThatDoesNotOpenKeepsNothingElseWaiting) {
  SetUpChain();
  RemoveNodes({"inject0"});
  directory_.MakeFifo("xdv-kvox_inject0");  // without a reader
  const auto begin = std::chrono::steady_clock::now();
  Restart({[&] {
    EXPECT_THAT(Buffers(), HasSubstr("\n  0         tapout0   -         pass      1"));
    EXPECT_EQ(log_.Count("inject0 Attempting to reinitialize KVO interface, attempt 1\n"), 1u);
  }});
  EXPECT_EQ(recovery_->now, RecoveryClock::TimePoint() + std::chrono::milliseconds(4500));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1))
      << "no pause but the clock's";
  EXPECT_EQ(log_.Count("I Restore buffer state inject0"), 1u);
  EXPECT_EQ(log_.Count("I Enable buffer inject0 with 1 input"), 1u);
  EXPECT_EQ(log_.Count("E Error opening"), 5u);
  EXPECT_EQ(log_.Count("inject0 Attempting to reinitialize KVO interface, attempt 4\n"), 1u);
  EXPECT_EQ(log_.Count("E Open " + (directory_ / "xdv-kvox_inject0").string()), 1u);
}

TEST_F(RecoveryRetriesTest, EachDeviceThatDoesNotOpenHasItsOwnTries) {
  MakeNodes({"inject1"});
  Restart();
  SetUpChain();
  Call(&KvoxService::StartIo, -1);
  RemoveNodes({"inject0", "inject1"});
  directory_.MakeFifo("xdv-kvox_inject0");
  Restart({[&] {
    recovery_->now += std::chrono::milliseconds(300);
    directory_.MakeFifo("xdv-kvox_inject1");
  }});
  for (const char* name : {"inject0", "inject1"}) {
    EXPECT_EQ(log_.Count("Error opening " + (directory_ / "xdv-kvox_").string() + name), 5u)
        << name;
  }
  EXPECT_EQ(recovery_->now, RecoveryClock::TimePoint() + std::chrono::milliseconds(4800));
}

TEST_F(RecoveryRetriesTest, ADeviceThatAClientOpensIsLookedAtAgain) {
  SetUpChain();
  std::latch opening(1);
  std::latch opens(1);
  std::thread client;
  io_.interrupted = "inject0";  // comes before tapout0
  io_.on_open = [&] {
    io_.interrupted = "tapout0";
    io_.on_open = [&] {
      opening.count_down();
      opens.wait();
    };
    client = std::thread([&] { Call(&KvoxService::StartIo, 0); });
    EXPECT_TRUE(WaitFor([&] { return opening.try_wait(); }));
  };
  Restart({[&] {
    opens.count_down();
    client.join();
  }});
  EXPECT_EQ(recovery_->now, RecoveryClock::TimePoint() + std::chrono::milliseconds(1500))
      << "a second after it was found busy";
  EXPECT_THAT(Buffers(), HasSubstr("\n  0         tapout0   -         pass      1"));
}

TEST_F(RecoveryRetriesTest, ADeviceIsTriedAgainWhenItsRightsChange) {
  SetUpChain();
  RemoveNodes({"inject0"});
  directory_.MakeFifo("xdv-kvox_inject0");
  UniqueFd reader;
  io_.interrupted = "inject0";
  int tries = 0;
  std::function<void()> open_at_last = [&] {
    if (++tries == 5) {  // the last one fails as well
      service_->HandleDeviceEvent({DeviceEvent::Kind::kRightsChanged, "xdv-kvox_inject0"});
    } else if (tries == 6) {
      const std::string path = directory_ / "xdv-kvox_inject0";
      reader = UniqueFd(open(path.c_str(), O_RDONLY | O_NONBLOCK));
    }
    io_.on_open = open_at_last;
  };
  io_.on_open = open_at_last;
  Restart();
  EXPECT_EQ(tries, 6);
  EXPECT_THAT(Buffers(), HasSubstr("\n  0         inject0   pass      -         1"));
}

}  // namespace
}  // namespace kvox
