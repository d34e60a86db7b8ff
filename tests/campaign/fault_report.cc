#include "tests/campaign/fault_report.h"

#include <fmt/format.h>

#include <algorithm>

namespace kvox::campaign {

void FaultReport::Injected(const FaultEvent& event) {
  ++events_;
  faults_ += event.parts.size();
  for (const auto& part : event.parts) ++kinds_[part.kind->name].injected;
  if (event.parts.size() > 1) ++at_once_[event.parts.size()].injected;
}

void FaultReport::Recovered(const FaultEvent& event, Ms recovery) {
  for (const auto& part : event.parts) ++kinds_[part.kind->name].recovered;
  Row& timed = event.parts.size() == 1 ? kinds_[event.parts.front().kind->name]
                                       : at_once_[event.parts.size()];
  slowest_ = std::max(slowest_, recovery);
  timed.slowest = std::max(timed.slowest, recovery);
  if (event.parts.size() > 1) ++timed.recovered;
}

void FaultReport::PrintRow(const std::string& name, const Row& row) const {
  fmt::print("{:<20} {:>8} {:>9} {:>21}\n", name, row.injected, row.recovered, row.slowest.count());
}

void FaultReport::Print() const {
  fmt::print("\n{:<20} {:>8} {:>9} {:>21}\n", "fault", "injected", "recovered",
             "slowest recovery (ms)");
  for (const FaultKind& kind : FaultKinds()) {
    const auto found = kinds_.find(kind.name);
    if (found != kinds_.end()) PrintRow(found->first, found->second);
  }
  for (const auto& [parts, row] : at_once_) PrintRow(fmt::format("{} at once", parts), row);
}

}  // namespace kvox::campaign
