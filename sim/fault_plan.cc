#include "sim/fault_plan.h"

#include <algorithm>

namespace kvox::sim {

bool FaultPlan::Add(const FaultSpec& spec, uint64_t now_ns) {
  if (entries_.size() == kMaxFaults) return false;
  const uint64_t at_ns = start_ns_ + static_cast<uint64_t>(spec.at * 1e9);
  entries_.push_back({.id = ++last_id_,
                      .spec = spec,
                      .group = RowOf(spec.kind).group,
                      .from_ns = std::max(at_ns, now_ns)});
  return true;
}

std::vector<FaultPlan::Begun> FaultPlan::TakeDue(uint64_t now_ns) {
  std::vector<Begun> begun;
  for (Entry& entry : entries_) {
    if (entry.running || Spent(entry) || entry.from_ns > now_ns) continue;
    entry.running = true;
    ++entry.hits;
    ++injected_[static_cast<size_t>(entry.spec.kind)];
    begun.push_back({entry.id, entry.spec});
  }
  return begun;
}

uint64_t FaultPlan::NextDue() const {
  uint64_t next = kNever;
  for (const Entry& entry : entries_) {
    if (!entry.running && !Spent(entry)) next = std::min(next, entry.from_ns);
  }
  return next;
}

void FaultPlan::Ended(uint64_t id) {
  std::erase_if(entries_, [&](Entry& entry) {
    if (entry.id != id) return false;
    entry.running = false;
    return Spent(entry);
  });
}

void FaultPlan::Clear() {
  entries_.clear();
}

void FaultPlan::Clear(FaultGroup group) {
  std::erase_if(entries_, [&](const Entry& entry) { return entry.group == group; });
}

FaultCounts FaultPlan::CountsOf(FaultKind kind, uint64_t now_ns) const {
  FaultCounts counts{.injected = injected_[static_cast<size_t>(kind)]};
  for (const Entry& entry : entries_) {
    if (entry.spec.kind != kind) continue;
    ++(entry.running || entry.from_ns <= now_ns ? counts.active : counts.waiting);
  }
  return counts;
}

bool FaultPlan::Spent(const Entry& entry) const {
  return entry.hits >= entry.spec.count;
}

}  // namespace kvox::sim
