// Switches use cases: runs their steps through the service's own commands.
#pragma once

#include <aidl/kvox/IKvox.h>

#include <deque>
#include <map>
#include <memory>
#include <set>
#include <span>

#include "kvox/common/mutex.h"
#include "kvox/common/thread_group.h"
#include "processors/kvox_processor.h"
#include "service/inventory.h"
#include "service/tap_points.h"
#include "service/use_case_steps.h"

namespace kvox {

/// Any thread but an I/O thread. Calls for the same use case take turns; no lock is held from one
/// step to the next, so other commands may run in between.
class UseCases {
 public:
  using UseCase = IKvox::UseCase;

  /// All outlive the object. `commands` runs the steps.
  UseCases(IKvox& commands, const Inventory& inventory, TapPoints& taps)
      : commands_(commands), inventory_(inventory), taps_(taps) {}

  /// Runs the steps into `result`; a failure ends the use case there, unless the step says
  /// otherwise. One that has failed, and may be half on, is switched off by all of its steps.
  void Switch(UseCase use_case, bool enable, IKvox::CommandResult* result);

  /// Switches off the use case of a relay whose client has died, unless the relay or its client has
  /// been replaced since. What fails, because devices are away, does not come back with them.
  /// Returns at once: a thread does it that waits for no other use case; the caller only when the
  /// system has none to give. A failure is logged.
  void EndUseCaseOf(std::shared_ptr<const KvoxProcessor> relay);

  bool telephony_enabled() const;

 private:
  class SwitchLock;
  enum class OfDeadClient { kNo, kYes };

  void SwitchLocked(UseCase use_case, bool enable, OfDeadClient of_dead_client,
                    IKvox::CommandResult* result) EXCLUDES(mutex_);
  bool IsIncomplete(UseCase use_case) const EXCLUDES(mutex_);
  void RunSteps(std::span<const UseCaseStep> steps, IKvox::CommandResult* result);
  void RunAllSteps(std::span<const UseCaseStep> steps, IKvox::CommandResult* result);
  bool AnythingIsLeft(UseCase use_case) const;
  void ForgetTaps(UseCase use_case);
  void RunStep(const UseCaseStep& step, IKvox::CommandResult* result);
  std::shared_ptr<const KvoxProcessor> NextDeath(UseCase use_case) EXCLUDES(mutex_);
  int32_t EndFor(const KvoxProcessor& relay, UseCase use_case) EXCLUDES(mutex_);

  IKvox& commands_;
  const Inventory& inventory_;
  TapPoints& taps_;

  mutable Mutex mutex_;  // a leaf lock
  CondVar switch_ended_;
  std::set<UseCase> switching_ GUARDED_BY(mutex_);
  std::set<UseCase> incomplete_ GUARDED_BY(mutex_);  // half on: switched last without success
  bool telephony_enabled_ GUARDED_BY(mutex_) = false;

  using Relays = std::deque<std::shared_ptr<const KvoxProcessor>>;
  std::map<UseCase, Relays> deaths_ GUARDED_BY(mutex_);  // each use case's thread works them off

  ThreadGroup threads_{SIZE_MAX};  // one for each use case at most; they use all of the above
};

}  // namespace kvox
