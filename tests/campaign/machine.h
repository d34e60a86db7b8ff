// Simulator and daemon as children, in directories of their own.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "bench/child.h"
#include "bench/daemon_under_test.h"
#include "tests/campaign/caller.h"
#include "tests/campaign/hang_guard.h"
#include "tests/campaign/log_reader.h"
#include "tests/campaign/resources.h"
#include "tests/campaign/sim_control.h"

namespace kvox::campaign {

class Machine {
 public:
  /// Starts both. Throws std::runtime_error when one does not come up.
  Machine();

  bench::PrivateDirectory& home() { return home_; }
  SimControl& sim() { return sim_; }
  Caller& caller() { return caller_; }
  std::shared_ptr<IKvox> service() const { return daemon_.shared_service(); }
  CallWatch& calls() { return calls_; }
  pid_t daemon_pid() const { return daemon_.pid(); }
  Resources DaemonResources() const { return ReadResources(daemon_.pid()); }

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
  bench::PrivateDirectory home_;
  std::unique_ptr<bench::Child> simulator_;
  bench::DaemonUnderTest daemon_;
  SimControl sim_;
  LogReader log_;
  CallWatch calls_;
  Caller caller_;
  HangGuard guard_;
};

}  // namespace kvox::campaign
