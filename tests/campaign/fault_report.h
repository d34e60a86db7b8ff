// Reports the injected faults, and how soon the daemon recovered.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "tests/campaign/fault_plan.h"

namespace kvox::campaign {

class FaultReport {
 public:
  void Injected(const FaultEvent& event);
  void Recovered(const FaultEvent& event, Ms recovery);

  uint64_t events() const { return events_; }
  uint64_t faults() const { return faults_; }
  void Print() const;
  /// Of all faults.
  Ms slowest() const { return slowest_; }

 private:
  struct Row {
    uint64_t injected = 0;
    uint64_t recovered = 0;
    Ms slowest{};
  };
  void PrintRow(const std::string& name, const Row& row) const;

  std::map<std::string, Row> kinds_;  // times only of faults that were alone
  std::map<size_t, Row> at_once_;     // by the number of faults at once, from two on
  Ms slowest_{};
  uint64_t events_ = 0;
  uint64_t faults_ = 0;
};

}  // namespace kvox::campaign
