// Daemon, simulator and client as programs, in private directories.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "tests/support/proc.h"
#include "tests/support/process.h"
#include "tests/support/temp_directory.h"

namespace kvox {

/// A call of kvoxctl that has ended.
struct ClientRun {
  int exit_status;
  std::string out;
  std::string err;
};

class SystemTest : public ::testing::Test {
 protected:
  SystemTest() {
    signal(SIGPIPE, SIG_IGN);
    // Programs inherit that a signal is ignored.
    for (const int number : {SIGINT, SIGHUP}) signal(number, SIG_DFL);
  }

  void StartSimulator(std::vector<std::string> options = {}) {
    options.insert(options.end(), {"--stats", (directory_ / "stats.json").string()});
    simulator_ = std::make_unique<Process>(KVOSIM_PROGRAM, options, directory_ / "kvosim");
    ASSERT_TRUE(WaitFor([&] { return exists(directory_ / "dev/.kvosim.ctl"); }));
  }
  /// Devices for a daemon that has no simulator: without any it searches for seconds before it
  /// serves.
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

  void StartBoth() {
    StartSimulator();
    StartDaemon();
  }

  ClientRun Run(std::vector<std::string> words) {
    Process client(KVOXCTL_PROGRAM, std::move(words), directory_ / "kvoxctl");
    const int status = client.Wait();
    return {status, client.Out(), client.Err()};
  }

  /// Starts kvoxctl.
  std::unique_ptr<Process> Begin(const std::string& line) {
    const std::string output = "begun" + std::to_string(++begun_);
    return std::make_unique<Process>(KVOXCTL_PROGRAM, Words(line), directory_ / output);
  }

  /// Tells the simulator to inject a fault.
  void Fault(const std::string& line) {
    Process ctl(KVOSIM_PROGRAM, Words("ctl fault " + line), directory_ / "ctl");
    EXPECT_EQ(ctl.Wait(), 0) << ctl.Err();
  }

  /// Runs kvoxctl, which must end with status 0. Returns what it prints.
  std::string Do(const std::string& line) {
    const ClientRun run = Run(Words(line));
    EXPECT_EQ(run.exit_status, 0) << line << "\n" << run.out << run.err;
    return run.out;
  }
  std::string Call(const std::string& line) { return Do("call " + line); }

  /// The document that a verb prints as JSON.
  nlohmann::json Json(const std::string& line);

  /// The verb must print an error and nothing else.
  void ExpectRefusal(const std::string& line, int exit_status, const std::string& message) {
    const ClientRun run = Run(Words(line));
    EXPECT_EQ(run.exit_status, exit_status) << line << "\n" << run.err;
    EXPECT_THAT(run.err, ::testing::HasSubstr(message)) << line;
    EXPECT_EQ(run.out, "") << line;
  }

  /// The simulator's counters, as of now.
  nlohmann::json Stats();

  /// One of the simulator's figures for a tap, as of now.
  int64_t Figure(const std::string& tap, const std::string& key);

  ResourceUsage DaemonResources() const { return ReadResources(daemon_->pid()); }

  bool DaemonLogs(const std::string& part, int count = 1) {
    return WaitFor([&] { return CountOf(part, daemon_->Err()) >= count; });
  }

  HostDirectories directory_;
  std::unique_ptr<Process> simulator_;
  std::unique_ptr<Process> daemon_;

 private:
  int begun_ = 0;
};

}  // namespace kvox
