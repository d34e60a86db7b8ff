// Simulator and daemon as children, in directories of their own.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "tests/campaign/caller.h"
#include "tests/campaign/hang_guard.h"
#include "tests/campaign/log_reader.h"
#include "tests/campaign/sim_control.h"
#include "tests/support/proc.h"
#include "tests/support/process.h"
#include "tests/support/temp_directory.h"

namespace kvox::campaign {

class Machine {
 public:
  /// Starts both. Throws std::runtime_error when one does not come up.
  Machine();
  /// Also ends the threads of this process that serve calls.
  ~Machine();
  Machine(const Machine&) = delete;
  Machine& operator=(const Machine&) = delete;

  const HostDirectories& home() const { return home_; }
  SimControl& sim() { return sim_; }
  Caller& caller() { return caller_; }
  std::shared_ptr<IKvox> service() const { return service_; }
  CallWatch& calls() { return calls_; }
  pid_t daemon_pid() const { return daemon_.pid(); }
  ResourceUsage DaemonResources() const { return ReadResources(daemon_.pid()); }

  /// Kills the simulator and starts another one after a while. Throws std::runtime_error when that
  /// does not come up. Nobody else may use sim() meanwhile.
  void ReplaceSimulator(Ms away);

  /// What has gone wrong with a process or a call: one has ended, a sanitizer has reported, a call
  /// does not return. Empty when nothing has. Reads on in the daemon's log.
  std::string Trouble();
  const LogLedger& ledger() const { return log_.ledger(); }

  /// Copies the logs into `directory` and ends the daemon, so that calls that hang return.
  void KeepLogs(const std::filesystem::path& directory);

 private:
  HostDirectories home_;
  std::unique_ptr<Process> simulator_;
  Process daemon_;
  std::shared_ptr<IKvox> service_;
  SimControl sim_;
  LogReader log_;
  CallWatch calls_;
  Caller caller_;
  HangGuard guard_;
};

}  // namespace kvox::campaign
