// Everything that runs before the first fault: simulator and daemon, the graph, and the clients
// that keep both busy.
#pragma once

#include <optional>
#include <string>

#include "tests/campaign/audio_check.h"
#include "tests/campaign/loopback_clients.h"
#include "tests/campaign/process_pair.h"
#include "tests/campaign/run_context.h"
#include "tests/campaign/worker_pool.h"
#include "tests/campaign/workers.h"

namespace kvox::campaign {

/// For audio to flow again after devices came back, including the half second for which the daemon
/// waits for more of them.
inline constexpr Ms kRecoveryLimit{1500};

/// A step of a recovery that the co-processor replies to.
inline constexpr Ms kRestoreStep{200};
/// One that it does not reply to.
inline constexpr Ms kUnansweredStep{700};

/// One thread. Where a function returns false or none, something is wrong and has been added to the
/// run's failures. All throw SimError when the simulator is gone.
class Testbed {
 public:
  /// Sets the graph up and starts the clients, paused. Throws std::runtime_error.
  Testbed(unsigned seed, LoadProfile profile);

  RunContext& run() { return run_; }
  ProcessPair& processes() { return processes_; }

  bool Healthy();
  /// Lets `time` pass, as long as all is well.
  bool RunFor(Ms time);

  /// False when a client's command is not acknowledged in time.
  bool Pause(PauseMode mode);
  void Resume() { workers_.Resume(); }

  /// Waits until the simulator has no active faults.
  bool AwaitEndOfFaults(Ms limit);

  /// Waits until the daemon has found every buffer and has then set nothing up for `step`, which is
  /// longer than a step of its recovery may take. Before that, what a command does depends on how
  /// far the recovery has come.
  bool AwaitRestored(Ms step);

  /// Streams through which audio has to flow: those that no client changes, or all.
  StreamList StaticStreams() const { return Flowing(false); }
  StreamList AllStreams() const { return Flowing(true); }

  AudioCheck StartAudioCheck() const { return {processes_.sim(), run_.lag}; }
  /// Returns how long the slowest stream took.
  std::optional<Ms> AwaitAudio(const AudioCheck& audio, const StreamList& streams, Ms limit,
                               const std::string& when);

  /// Compares what was acknowledged with the actual state. The clients are paused.
  bool CheckGraph();
  /// Compares it with what has flowed since `before`, a few packets ago, or flows from now on.
  bool CheckFlow(SimStatus before);
  /// Commands that only look something up have to return at once, also while the co-processor does
  /// not reply.
  bool CheckLookUps();

  /// A fault of the simulator after which all devices are new, up to exact audio and an idle
  /// daemon. Returns the recovery's time.
  std::optional<Ms> Recover(const std::string& fault);

  /// Ends clients and calls, and copies the logs into `directory`.
  void KeepLogs(const std::filesystem::path& directory);

 private:
  void SetUpGraph();
  std::string LookUp(const std::vector<std::string>& words);
  StreamList Flowing(bool with_changing) const;

  ProcessPair processes_;
  RunContext run_;
  LoopbackClients loopback_;
  WorkerPool workers_;
};

}  // namespace kvox::campaign
