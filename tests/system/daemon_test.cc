#include "tests/system/system_fixture.h"

namespace kvox {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

class DaemonTest : public SystemTest {
 protected:
  int64_t WakeUps() {
    int64_t sum = 0;
    for (const auto& task : Entries(ProcPath(daemon_->pid()) / "task")) {
      sum += std::stoll("0" + ProcField(task / "status", "voluntary_ctxt_switches"));
    }
    return sum;
  }
};

TEST_F(DaemonTest, SignalsEndItsEventsAndTerminationEndsIt) {
  StartBoth();
  EXPECT_THAT(daemon_->Out(), HasSubstr("Kvoxd start"));
  ASSERT_TRUE(DaemonLogs("Start EventThread"));
  daemon_->Signal(SIGINT);
  EXPECT_TRUE(DaemonLogs("Stop EventThread"));
  EXPECT_THAT(daemon_->Err(), HasSubstr("Caught signal. Exiting"));
  daemon_->Signal(SIGHUP);
  EXPECT_EQ(Run({"call", "Ping"}).exit_status, 0);
  Call("TapList 2");
  daemon_->Signal(SIGTERM);
  EXPECT_EQ(daemon_->Wait(), -SIGTERM);
}

TEST_F(DaemonTest, ASecondOneIsRefusedAndADeadOnesPlaceIsFree) {
  StartBoth();
  std::ofstream(directory_ / "power/wake_lock") << "kvox";
  Process second(KVOXD_PROGRAM, {}, directory_ / "second");
  EXPECT_TRUE(WaitFor([&] {
    return CountOf("Failed to find kvox service kvox.IKvox/default, status", second.Err()) == 1;
  }));
  EXPECT_EQ(Run({"ping"}).exit_status, 0) << "the first one serves on";
  second.Signal(SIGINT);
  EXPECT_EQ(second.Wait(), 0);
  EXPECT_THAT(second.Out(), HasSubstr("Kvoxd stop"));
  const std::string runtime = getenv("KVOX_RUNTIME_DIR");
  const auto open_to_all = directory_ / "open";
  std::filesystem::create_directory(open_to_all);
  std::filesystem::permissions(open_to_all, std::filesystem::perms::all);
  setenv("KVOX_RUNTIME_DIR", open_to_all.c_str(), 1);
  const Process third(KVOXD_PROGRAM, {}, directory_ / "third");
  setenv("KVOX_RUNTIME_DIR", runtime.c_str(), 1);
  EXPECT_TRUE(WaitFor([&] { return CountOf("Failed to find kvox service", third.Err()) == 1; }));
  EXPECT_EQ(ReadText(directory_ / "power/wake_unlock"), "") << "the wake lock is the first one's";
  daemon_.reset();  // killed: its socket stays behind
  StartDaemon();
}

TEST_F(DaemonTest, IsIdleWhenNothingIsEnabled) {
#if defined(KVOX_SANITIZED)
  GTEST_SKIP() << "a sanitizer has threads and memory of its own";
#endif
  StartBoth();
  // The first scan may still be under way when the daemon answers.
  ASSERT_TRUE(DaemonLogs("Found 8 tap-out buffers, 8 inject buffers"));
  int64_t before = -1;
  EXPECT_TRUE(WaitFor([&] {
    before = WakeUps();
    poll(nullptr, 0, 1000);
    return WakeUps() == before;
  })) << "no second passed without a wake-up";
  EXPECT_LT(DaemonResources().memory_kib, 12 * 1024);
}

TEST_F(DaemonTest, DropsAWakeLockThatAnEarlierOneLeft) {
  std::ofstream(directory_ / "power/wake_lock") << "other kvox";
  StartBoth();
  EXPECT_EQ(ReadText(directory_ / "power/wake_unlock"), "kvox");
}

TEST_F(DaemonTest, AWakeLockThatCouldNotBeReleasedIsReleasedLater) {
  const auto release = directory_ / "power/wake_unlock";
  StartBoth();
  Call("StartIo 0");
  std::filesystem::remove(release);
  std::filesystem::create_directory(release);
  Call("StopIo 0");
  EXPECT_TRUE(DaemonLogs("Release wakelocked failed"));
  std::filesystem::remove(release);
  std::ofstream(release) << "";
  Call("StopIo 0");
  EXPECT_EQ(ReadText(release), "kvox");
}

TEST_F(DaemonTest, ADeviceDirectoryThatComesBackIsWatchedAgain) {
  MakeNodes();
  StartDaemon();
  const auto devices = directory_ / "dev";
  for (int times = 1; times <= 2; ++times) {
    if (times == 1) {
      std::filesystem::rename(devices, directory_ / "moved");
    } else {
      std::filesystem::remove_all(devices);
    }
    ASSERT_TRUE(DaemonLogs("is gone. It is looked for once a second", times));
    EXPECT_THAT(Call("ListTapOutBuffers"), HasSubstr("none"));
    std::filesystem::create_directory(devices);
    MakeNodes();
    EXPECT_TRUE(WaitFor([&] {
      return Run(Words("call ListTapOutBuffers")).out.find("tapout0") != std::string::npos;
    }));
  }
}

/// More events than the kernel keeps, while the daemon stands still.
TEST_F(DaemonTest, LostDeviceEventsAreMadeUpFor) {
  StartBoth();
  ASSERT_TRUE(DaemonLogs("Found 8 tap-out buffers, 8 inject buffers"));
  daemon_->Freeze();
  int limit = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
  const auto other = directory_ / "dev/other";
  for (int i = 0; i < limit; ++i) {
    std::ofstream(other).close();
    std::filesystem::remove(other);
  }
  directory_.MakeFifo("dev/xdv-kvox_tapout99");
  daemon_->Signal(SIGCONT);
  EXPECT_TRUE(DaemonLogs("Device events were lost"));
  EXPECT_TRUE(DaemonLogs("Found 9 tap-out buffers, 8 inject buffers"));
  EXPECT_THAT(Call("TapInfo 2 imic 0"), HasSubstr("imic.0 ")) << "the control device is open again";
}

TEST_F(DaemonTest, AnswersWithoutAnyDevice) {
  StartDaemon();
  EXPECT_THAT(daemon_->Err(), HasSubstr("Found 0 tap-out buffers, 0 inject buffers"));
  EXPECT_EQ(Call("ListTapOutBuffers"), "Tap-out buffers:\n  none\n\n");
  const ClientRun tap = Run(Words("call TapInfo 2 imic 0"));
  EXPECT_EQ(tap.exit_status, 1);
  EXPECT_THAT(daemon_->Err(),
              HasSubstr("Cannot find " + (directory_ / "dev/xdv-kvox_control").string()));
  StartSimulator();
  EXPECT_TRUE(WaitFor([&] { return CountOf("tapout41", Call("ListTapOutBuffers")) == 1; }));
  EXPECT_THAT(Call("TapInfo 2 imic 0"), HasSubstr("imic.0 "));
}

TEST_F(DaemonTest, LogsWhatTheEnvironmentAsksFor) {
  setenv("ANDROID_LOG_TAGS", "*:w", 1);
  MakeNodes();
  StartDaemon();
  Run(Words("call TapInfo 2 imic 0"));
  EXPECT_TRUE(DaemonLogs("CMD_TAP_INFO_ID failed"));
  EXPECT_EQ(CountOf("Get tap point info", daemon_->Err()), 0);
}

TEST_F(DaemonTest, ArgumentsAreRefused) {
  Process wrong(KVOXD_PROGRAM, {"--verbose"}, directory_ / "wrong");
  EXPECT_EQ(wrong.Wait(), 2);
  EXPECT_THAT(wrong.Err(), StartsWith("kvoxd: unexpected argument '--verbose'"));
}

}  // namespace
}  // namespace kvox
