// Everything that runs before the first fault: simulator and daemon, the graph, and the clients
// that keep both busy.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "tests/campaign/audio_check.h"
#include "tests/campaign/crew.h"
#include "tests/campaign/echo.h"
#include "tests/campaign/findings.h"
#include "tests/campaign/machine.h"
#include "tests/campaign/phase.h"
#include "tests/campaign/workers.h"

namespace kvox::campaign {

/// For a command that has to be granted once nothing is disturbed any more: the co-processor
/// answers in 500 ms or never, and several commands may be waiting their turn.
inline constexpr Ms kGrantLimit{5000};
/// For audio to flow again after devices came back, including the half second for which the daemon
/// waits for further ones.
inline constexpr Ms kRecoveryLimit{1500};
/// For threads that end by themselves and descriptors that are closed behind an answer.
inline constexpr Ms kReleaseLimit{5000};

/// A step of a recovery whose command the co-processor answers.
inline constexpr Ms kRestoreStep{200};
/// One that it does not answer.
inline constexpr Ms kUnansweredStep{700};

class Stage {
 public:
  /// Sets the graph up and starts the clients; all of them stand still. Throws std::runtime_error.
  Stage(unsigned seed, Manner manner);

  Machine& machine() { return machine_; }
  SimControl& sim() { return machine_.sim(); }
  LoadMeter& load() { return load_; }
  PhaseClock& phase() { return phase_; }
  Findings& findings() { return findings_; }
  Shared& shared() { return shared_; }
  const Echoes& echoes() const { return echoes_; }

  /// Lets time pass, up to `time`; false as soon as something is wrong.
  bool Run(Ms time);
  /// Whether all goes on well; what does not becomes a finding.
  bool Healthy();

  /// Has the clients stand still. False, and a finding, when a command is not granted in time.
  bool Halt(Stand stand);
  void Resume() { crew_.Resume(); }

  /// Has every fault that was told to the simulator come to its end. False, and a finding, when
  /// they do not within `limit`.
  bool AwaitEndOfFaults(Ms limit);

  /// Waits until the daemon has found every buffer and then for `step` has set nothing up: longer
  /// than a step of its recovery may take. Before that, what a command does depends on how far the
  /// recovery has come. False, and a finding, when a buffer is not found.
  bool AwaitRestored(Ms step);

  /// Streams through which audio has to flow: all that do after the model, or those of them that no
  /// client changes.
  StreamList Flowing(bool with_changing) const;

  /// Holds what was acknowledged against what is. To be called while the clients stand still.
  bool CheckGraph();

  /// One restart of the co-processor, from its beginning to exact audio. Answers the recovery's
  /// time; none, and a finding, when it fails.
  std::optional<Ms> Restart(const std::string& words);

  /// Ends clients and calls, keeps the logs in `directory`.
  void KeepLogs(const std::filesystem::path& directory);

 private:
  void SetUp();

  LoadMeter load_;
  PhaseClock phase_;
  Findings findings_;
  SharedModel model_;
  Machine machine_;
  Shared shared_;
  Echoes echoes_;
  Crew crew_;
};

}  // namespace kvox::campaign
