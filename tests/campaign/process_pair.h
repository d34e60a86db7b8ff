// Simulator and daemon as child processes, in private directories.
#pragma once

#include <kvox_host/binder_host.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/campaign/call_watchdog.h"
#include "tests/campaign/daemon_client.h"
#include "tests/campaign/log_analyzer.h"
#include "tests/campaign/sim_control.h"
#include "tests/support/proc.h"
#include "tests/support/process.h"
#include "tests/support/temp_directory.h"

namespace kvox::campaign {

/// One thread, except for sim() and client().
class ProcessPair {
 public:
  /// Starts both. Throws std::runtime_error when one does not come up.
  ProcessPair();

  const std::filesystem::path& home() const { return home_.path(); }
  const SimControl& sim() const { return sim_; }
  DaemonClient& client() { return client_; }
  const std::shared_ptr<IKvox>& service() const { return service_; }
  /// `kvoxctl call` with these words. Returns its exit status; none when it has not ended in time.
  std::optional<int> CallFromAnotherProcess(std::vector<std::string> words, Ms limit) const;
  std::string SlowestCall() const { return watchdog_.Slowest(); }
  pid_t daemon_pid() const { return daemon_.pid(); }
  ResourceUsage DaemonResources() const { return ReadResources(daemon_.pid()); }

  /// Kills the simulator and starts another one after a while. Throws std::runtime_error when that
  /// does not come up. Until it returns, sim() must not be used.
  void ReplaceSimulator(Ms away);

  /// An error of a process or call: one has ended, a sanitizer has reported, a call does not
  /// return. Empty if there is none. Also updates log().
  std::string Problem();
  const LogAnalyzer& log() const { return log_.log(); }

  /// Copies the logs into `directory` and kills the daemon, so that calls that hang return.
  void KeepLogs(const std::filesystem::path& directory);

 private:
  /// Ends the threads of this process that serve calls, once nothing refers to the daemon any more.
  struct BinderThreads {
    ~BinderThreads() { kvox_host::StopBinder(); }
  };

  HostDirectories home_;
  std::unique_ptr<Process> simulator_;
  Process daemon_;
  BinderThreads binder_threads_;
  std::shared_ptr<IKvox> service_;
  SimControl sim_;
  LogFollower log_;
  CallWatchdog watchdog_;
  DaemonClient client_;
};

}  // namespace kvox::campaign
