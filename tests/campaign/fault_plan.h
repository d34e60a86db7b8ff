// Chooses the next fault: first every kind alone, in random order, then random kinds, often several
// at once. The same seed gives the same sequence.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/campaign/fault_kinds.h"

namespace kvox::campaign {

/// Faults that are active together.
struct FaultEvent {
  struct Part {
    const FaultKind* kind;
    Injection injection;
    Ms delay = {};  // after the part before it
  };
  std::vector<Part> parts;
  Ms pause;  // before the next event

  /// Everything has ended by then.
  Ms Lasts() const;
  /// How soon audio has to be exact after the end.
  Ms RecoveryLimit() const;
  /// Whether the daemon sets a co-processor up again.
  bool TouchesNodes() const { return Has(FaultGroup::kNodes); }
  /// Whether replies may be corrupted while the daemon sets a co-processor up again. The daemon
  /// does not retry what the co-processor refuses then: clients must.
  bool MayCorruptRestore() const { return TouchesNodes() && Has(FaultGroup::kReplies); }
  /// Whether streams that no client changes must not lose a packet.
  bool KeepsAudio() const;
  /// Whether a client takes part, which may change such streams.
  bool HasClient() const;
  /// The commands for the simulator.
  std::string Text() const;

 private:
  bool Has(FaultGroup group) const;
};

class FaultPlan {
 public:
  /// Only kinds that do not take long if `quick`; of one kind only if `only` is not null.
  FaultPlan(uint64_t seed, bool quick, const FaultKind* only);

  FaultEvent Next();

 private:
  const FaultKind& Choose();

  RandomSource random_;
  std::vector<const FaultKind*> kinds_;
  std::vector<const FaultKind*> alone_;  // still to come, the last one first
  unsigned weights_ = 0;
};

}  // namespace kvox::campaign
