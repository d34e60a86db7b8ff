// Whether the daemon has given everything back: descriptors, threads and memory at the reference,
// against what they were before the first fault.
#pragma once

#include "tests/campaign/stage.h"
#include "tests/support/proc.h"

namespace kvox::campaign {

class LeakCheck {
 public:
  explicit LeakCheck(Stage& stage) : stage_(stage) {}

  /// Notes what there is now. The clients are brought to the reference and go on afterwards.
  bool Begin();

  /// False, and a finding, when there is more than at the beginning.
  bool Check();

 private:
  bool Stands();
  bool IsBack(const ResourceUsage& now) const;

  Stage& stage_;
  ResourceUsage before_;
};

}  // namespace kvox::campaign
