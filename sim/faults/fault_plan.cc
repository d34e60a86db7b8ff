#include "sim/faults/fault_plan.h"

#include <algorithm>

namespace kvox::sim {
namespace {

/// A number from 0 to 1 that depends only on these, not on other faults.
double Chance(uint64_t seed, const std::string& key, uint64_t number) {
  uint64_t hash = seed * 0x9E3779B97F4A7C15u + number;
  for (const char c : key) hash = (hash ^ static_cast<uint8_t>(c)) * 0x100000001B3u;
  hash = (hash ^ hash >> 30) * 0xBF58476D1CE4E5B9u;
  hash = (hash ^ hash >> 27) * 0x94D049BB133111EBu;
  hash ^= hash >> 31;
  return static_cast<double>(hash >> 11) * 0x1p-53;
}

}  // namespace

bool FaultPlan::Entry::Spent() const {
  const bool lasts = !timed() && config.seconds;
  return hits >= config.count.value_or(lasts ? kNever : 1);
}

/// Whether a fault of packets or commands is finished.
bool FaultPlan::Entry::Over(uint64_t now_ns) const {
  if (timed()) return false;
  const bool out_of_time =
      begun && config.seconds && now_ns >= begun_ns + static_cast<uint64_t>(*config.seconds * 1e9);
  return Spent() || out_of_time;
}

bool FaultPlan::Add(const FaultConfig& config, uint64_t now_ns) {
  DropOver(now_ns);
  if (entries_.size() == kMaxFaults) return false;
  const uint64_t at_ns = start_ns_ + static_cast<uint64_t>(config.at * 1e9);
  Entry& entry = entries_.emplace_back();
  entry.id = ++last_id_;
  entry.config = config;
  entry.group = RowOf(config.kind).group;
  entry.from_ns = std::max(at_ns, now_ns);
  entry.begun = !entry.timed() && config.after.value_or(0) == 0;
  entry.begun_ns = entry.from_ns;
  return true;
}

/// Counts a packet or command. Each has its number, so that two runs strike the same ones.
bool FaultPlan::Strikes(Entry& entry, const std::string& key, uint64_t now_ns) const {
  const uint64_t number = ++entry.counted[key];
  if (now_ns < entry.from_ns || number <= entry.config.after.value_or(0)) return false;
  if (!entry.begun) entry.begun_ns = now_ns;
  entry.begun = true;
  if (entry.Over(now_ns) || entry.Spent()) return false;
  return !entry.config.probability ||
         Chance(entry.config.seed, key, number) < *entry.config.probability;
}

void FaultPlan::CountHit(Entry& entry) {
  ++entry.hits;
  ++injected_[static_cast<size_t>(entry.config.kind)];
}

/// The faults that `selects(entry)` is true for and that strike now.
template <typename Selects>
std::vector<FaultConfig> FaultPlan::Strike(const std::string& key, uint64_t now_ns,
                                           Selects selects) {
  std::vector<FaultConfig> struck;
  bool alarm = false;
  for (Entry& entry : entries_) {
    if (!selects(entry) || !Strikes(entry, key, now_ns)) continue;
    if (entry.timed()) {
      alarm |= !entry.running;
      entry.due = !entry.running;
    } else {
      CountHit(entry);
      struck.push_back(entry.config);
    }
  }
  DropOver(now_ns);
  if (alarm && alarm_) alarm_();
  return struck;
}

std::vector<FaultConfig> FaultPlan::OnPacket(const std::string& tap, uint64_t now_ns) {
  return Strike(tap, now_ns, [&](const Entry& entry) {
    const bool of_packets =
        entry.group == FaultGroup::kPackets && entry.config.kind != FaultKind::kPacketEarly;
    return (of_packets || entry.by_packets()) && entry.Concerns(tap);
  });
}

bool FaultPlan::GoesEarly(const std::string& tap, uint64_t now_ns) {
  const auto struck = Strike(tap, now_ns, [&](const Entry& entry) {
    return entry.config.kind == FaultKind::kPacketEarly && entry.Concerns(tap);
  });
  return !struck.empty();
}

std::vector<FaultConfig> FaultPlan::OnCommand(uint16_t opcode, bool first, uint64_t now_ns) {
  return Strike("", now_ns, [&](const Entry& entry) {
    return entry.group == FaultGroup::kReplies &&
           (entry.config.opcode == 0 || entry.config.opcode == opcode) &&
           !(first && entry.config.kind == FaultKind::kReplyStale);
  });
}

/// When a fault of nodes or devices is to begin.
uint64_t FaultPlan::DueOf(const Entry& entry) {
  if (!entry.timed() || entry.running || entry.Spent()) return kNever;
  if (entry.by_packets()) return entry.due ? 0 : kNever;
  return entry.from_ns;
}

std::vector<FaultPlan::Started> FaultPlan::StartDue(uint64_t now_ns) {
  std::vector<Started> started;
  for (Entry& entry : entries_) {
    if (DueOf(entry) > now_ns) continue;
    entry.due = false;
    entry.running = true;
    CountHit(entry);
    started.push_back({entry.id, entry.config});
  }
  return started;
}

uint64_t FaultPlan::NextDue() const {
  uint64_t next = kNever;
  for (const Entry& entry : entries_) next = std::min(next, DueOf(entry));
  return next;
}

void FaultPlan::Ended(uint64_t id) {
  std::erase_if(entries_, [&](Entry& entry) {
    if (entry.id != id) return false;
    entry.running = false;
    return entry.Spent();
  });
}

void FaultPlan::DropOver(uint64_t now_ns) {
  std::erase_if(entries_, [&](const Entry& entry) { return entry.Over(now_ns); });
}

void FaultPlan::Clear(FaultGroup group) {
  std::erase_if(entries_, [&](const Entry& entry) { return entry.group == group; });
}

FaultCounts FaultPlan::CountsOf(FaultKind kind, uint64_t now_ns) const {
  FaultCounts counts{.injected = injected_[static_cast<size_t>(kind)]};
  for (const Entry& entry : entries_) {
    if (entry.config.kind != kind || entry.Over(now_ns)) continue;
    const bool active = entry.running || (!entry.timed() && entry.begun && entry.from_ns <= now_ns);
    ++(active ? counts.active : counts.waiting);
  }
  return counts;
}

}  // namespace kvox::sim
