// Decides which fault strikes when, by the clock and by the packets and commands that pass. The
// same faults and packets give the same strikes. The caller has the clock; one thread at a time.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "sim/faults/fault.h"

namespace kvox::sim {

/// Of one kind.
struct FaultCounts {
  uint64_t injected = 0;  // times it struck
  uint64_t active = 0;    // faults that strike now
  uint64_t waiting = 0;   // faults whose time has not come
};

class FaultPlan {
 public:
  static constexpr uint64_t kNever = UINT64_MAX;

  /// A fault of nodes or devices that begins.
  struct Started {
    uint64_t id;
    FaultConfig config;
  };

  explicit FaultPlan(uint64_t start_ns) : start_ns_(start_ns) {}

  /// False when there are kMaxFaults already.
  bool Add(const FaultConfig& config, uint64_t now_ns);

  /// A packet of `tap` is about to be sent: the faults of packets that strike it, except
  /// packet-early. A fault of nodes or devices that it triggers is due from then on.
  std::vector<FaultConfig> OnPacket(const std::string& tap, uint64_t now_ns);
  /// The same for packet-early alone, to be called before the packet is due.
  bool GoesEarly(const std::string& tap, uint64_t now_ns);
  /// A command was received: the faults that strike its reply. There can be no stale reply before
  /// the first one.
  std::vector<FaultConfig> OnCommand(uint16_t opcode, bool first, uint64_t now_ns);

  /// Starts the faults of nodes and devices that are due. They count as active until Ended().
  std::vector<Started> StartDue(uint64_t now_ns);
  /// When StartDue() has something next; kNever: nothing by the clock.
  uint64_t NextDue() const;
  /// Called by OnPacket() when something is due.
  void SetAlarm(std::function<void()> alarm) { alarm_ = std::move(alarm); }
  void Ended(uint64_t id);

  /// Forgets every fault, or those of one group.
  void Clear() { entries_.clear(); }
  void Clear(FaultGroup group);

  FaultCounts CountsOf(FaultKind kind, uint64_t now_ns) const;

 private:
  struct Entry {
    uint64_t id;
    FaultConfig config;
    FaultGroup group;
    uint64_t from_ns;                         // not before
    uint64_t hits = 0;                        // times it struck
    bool begun = false;                       // of packets or commands: the trigger was met,
    uint64_t begun_ns = 0;                    // at this time
    bool due = false;                         // of nodes or devices: a packet triggered it
    bool running = false;                     // of nodes or devices: until it ends
    std::map<std::string, uint64_t> counted;  // packets by tap; commands under ""

    bool timed() const { return IsTimed(group); }
    bool by_packets() const { return timed() && (config.after || config.probability); }
    bool Concerns(const std::string& tap) const { return config.tap.empty() || config.tap == tap; }
    bool Spent() const;
    bool Over(uint64_t now_ns) const;
  };
  template <typename Selects>
  std::vector<FaultConfig> Strike(const std::string& key, uint64_t now_ns, Selects selects);
  bool Strikes(Entry& entry, const std::string& key, uint64_t now_ns) const;
  void CountHit(Entry& entry);
  void DropOver(uint64_t now_ns);
  static uint64_t DueOf(const Entry& entry);

  const uint64_t start_ns_;
  std::function<void()> alarm_;
  uint64_t last_id_ = 0;
  std::vector<Entry> entries_;
  std::array<uint64_t, kFaultKinds> injected_ = {};
};

}  // namespace kvox::sim
