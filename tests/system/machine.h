// Daemon and simulator together in private directories, and the client that talks to them.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/process.h"
#include "tests/support/temp_directory.h"

namespace kvox {

/// A call of kvoxctl that has ended.
struct ClientRun {
  int exit_status;
  std::string out;
  std::string err;
};

class MachineTest : public ::testing::Test {
 protected:
  MachineTest() {
    signal(SIGPIPE, SIG_IGN);
    // Programs would go on ignoring what this one was told to ignore.
    for (const int number : {SIGINT, SIGHUP}) signal(number, SIG_DFL);
    for (const char* name : {"dev", "run", "power"}) {
      std::filesystem::create_directory(directory_ / name);
    }
    for (const char* name : {"power/wake_lock", "power/wake_unlock"}) {
      std::ofstream(directory_ / name) << std::flush;
    }
    unsetenv("ANDROID_LOG_TAGS");
    setenv("KVOX_DEV_DIR", (directory_ / "dev").c_str(), 1);
    setenv("KVOX_RUNTIME_DIR", (directory_ / "run").c_str(), 1);
    setenv("KVOX_WAKE_LOCK_DIR", (directory_ / "power").c_str(), 1);
  }

  void StartSimulator(std::vector<std::string> options = {}) {
    options.insert(options.end(), {"--stats", (directory_ / "stats.json").string()});
    simulator_ = std::make_unique<Process>(KVOSIM_PROGRAM, options, directory_ / "kvosim");
    ASSERT_TRUE(WaitFor([&] { return exists(directory_ / "dev/xdv-kvox_tapout41"); }));
  }
  void StopSimulator() {
    simulator_->Signal(SIGTERM);
    EXPECT_EQ(simulator_->Wait(), 0) << simulator_->Err();
    simulator_.reset();
  }
  /// Something for a daemon to find: without devices it looks for seconds before it serves.
  void MakeNodes() {
    for (const char* name : {"tapout0", "inject0"}) {
      directory_.MakeFifo(std::string("dev/xdv-kvox_") + name);
    }
  }
  void StartDaemon() {
    daemon_ =
        std::make_unique<Process>(KVOXD_PROGRAM, std::vector<std::string>(), directory_ / "kvoxd");
    ASSERT_TRUE(WaitFor([&] { return Run({"ping"}).exit_status == 0; })) << daemon_->Err();
  }

  ClientRun Run(std::vector<std::string> words) {
    Process client(KVOXCTL_PROGRAM, std::move(words), directory_ / "kvoxctl");
    const int status = client.Wait();
    return {status, client.Out(), client.Err()};
  }

  /// `kvoxctl call` with the words of `line`; must be answered with status 0.
  std::string Call(const std::string& line) {
    const ClientRun run = Run(Words("call " + line));
    EXPECT_EQ(run.exit_status, 0) << line << "\n" << run.out << run.err;
    return run.out;
  }

  /// The simulator's counters, as of now.
  nlohmann::json Stats() {
    const auto path = directory_ / "stats.json";
    std::filesystem::remove(path);
    simulator_->Signal(SIGUSR1);
    nlohmann::json stats;
    EXPECT_TRUE(WaitFor([&] {
      stats = nlohmann::json::parse(ReadText(path), nullptr, false);
      return !stats.is_discarded();
    }));
    return stats;
  }

  /// One of the simulator's figures for a tap, as of now.
  int64_t Figure(const std::string& tap, const std::string& key) {
    const nlohmann::json stats = Stats();
    for (const auto& row : stats["taps"]) {
      if (row["tap"] == tap) return row[key].get<int64_t>();
    }
    ADD_FAILURE() << "no tap " << tap;
    return -1;
  }

  /// Entries of a directory that the kernel keeps of the daemon: "task" or "fd".
  int CountEntries(const std::string& what) {
    const auto path = "/proc/" + std::to_string(daemon_->pid()) + "/" + what;
    std::error_code error;
    int count = 0;
    for (std::filesystem::directory_iterator it(path, error), end; !error && it != end;
         it.increment(error))
      ++count;
    return count;
  }

  /// Stops the daemon's process; returns once all its threads stand.
  void FreezeDaemon() {
    daemon_->Signal(SIGSTOP);
    int status = 0;
    EXPECT_TRUE(WaitFor([&] { return waitpid(daemon_->pid(), &status, WUNTRACED | WNOHANG) > 0; }));
  }

  bool DaemonLogs(const std::string& part, int count = 1) {
    return WaitFor([&] { return CountOf(part, daemon_->Err()) >= count; });
  }

  TempDirectory directory_;
  std::unique_ptr<Process> simulator_;
  std::unique_ptr<Process> daemon_;
};

}  // namespace kvox
