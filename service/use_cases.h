// Switches use cases: runs their steps through the service's own commands.
#pragma once

#include <aidl/kvox/IKvox.h>

#include <set>
#include <span>

#include "kvox/common/mutex.h"
#include "processors/kvox_processor.h"
#include "service/inventory.h"
#include "service/use_case_steps.h"

namespace kvox {

/// Any thread but an I/O thread. Calls for the same use case take turns; no lock is held from one
/// step to the next, so other commands may run in between.
class UseCases {
 public:
  using UseCase = IKvox::UseCase;

  /// Both outlive the object. `commands` runs the steps.
  UseCases(IKvox& commands, const Inventory& inventory)
      : commands_(commands), inventory_(inventory) {}

  /// Runs the steps into `result`; a failure ends the use case there, unless the step says
  /// otherwise.
  void Switch(UseCase use_case, bool enable, IKvox::CommandResult* result);

  /// Switches off the use case of a relay whose client has died, unless the relay or its client has
  /// been replaced since. Returns 0, or a status of the commands.
  int32_t EndUseCaseOf(const KvoxProcessor& relay);

  bool telephony_enabled() const;

 private:
  class SwitchLock;

  void SwitchLocked(UseCase use_case, bool enable, IKvox::CommandResult* result) EXCLUDES(mutex_);
  void RunStep(const UseCaseStep& step, IKvox::CommandResult* result);

  IKvox& commands_;
  const Inventory& inventory_;

  mutable Mutex mutex_;  // a leaf lock
  CondVar switch_ended_;
  std::set<UseCase> switching_ GUARDED_BY(mutex_);
  bool telephony_enabled_ GUARDED_BY(mutex_) = false;
};

}  // namespace kvox
