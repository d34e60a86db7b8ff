// Which fault strikes when: the faults that were asked for, held against the clock, the packets and
// the commands that pass. Pure: the caller has the clock; one thread at a time.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "sim/fault_spec.h"

namespace kvox::sim {

/// Of one kind.
struct FaultCounts {
  uint64_t injected = 0;  // times it struck
  uint64_t active = 0;    // faults that strike now
  uint64_t waiting = 0;   // faults whose time has not come
};

class FaultPlan {
 public:
  /// Faults that wait or are at work; no more are taken.
  static constexpr size_t kMaxFaults = 64;
  static constexpr uint64_t kNever = UINT64_MAX;

  /// A fault of nodes or devices whose time has come.
  struct Begun {
    uint64_t id;
    FaultSpec spec;
  };

  explicit FaultPlan(uint64_t start_ns) : start_ns_(start_ns) {}

  /// Takes a fault on; false when there are too many.
  bool Add(const FaultSpec& spec, uint64_t now_ns);

  /// Faults of nodes and devices that begin now. They count as active until Ended().
  std::vector<Begun> TakeDue(uint64_t now_ns);
  /// When TakeDue() has something next; kNever: nothing by the clock.
  uint64_t NextDue() const;
  void Ended(uint64_t id);

  /// Forgets every fault, or those of one group.
  void Clear();
  void Clear(FaultGroup group);

  FaultCounts CountsOf(FaultKind kind, uint64_t now_ns) const;

 private:
  struct Entry {
    uint64_t id;
    FaultSpec spec;
    FaultGroup group;
    uint64_t from_ns;      // not before
    uint64_t hits = 0;     // that it struck
    bool running = false;  // begun and not ended, of nodes and devices
  };
  bool Spent(const Entry& entry) const;

  const uint64_t start_ns_;
  uint64_t last_id_ = 0;
  std::vector<Entry> entries_;
  std::array<uint64_t, kFaultKinds> injected_ = {};
};

}  // namespace kvox::sim
