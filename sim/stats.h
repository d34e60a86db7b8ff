// The simulator's counters, as tables for people and as JSON for programs. docs/simulator.md
// defines the JSON keys.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "sim/coprocessor/co_processor.h"
#include "sim/coprocessor/command_handler.h"
#include "sim/devices/device_set.h"
#include "sim/faults/fault_plan.h"

namespace kvox::sim {

struct Stats {
  double seconds = 0;  // since the start
  double speed = 1;
  const CoProcessor* co_processor = nullptr;
  CommandCounts commands = {};
  uint64_t junk_bytes = 0;  // on the control device
  uint64_t replies_dropped = 0;
  std::vector<InjectCounts> injects = {};
  std::vector<std::pair<const char*, FaultCounts>> faults = {};  // by kind
};

/// One JSON object and a newline.
std::string StatsJson(const Stats& stats);

/// Tables without what is zero.
std::string StatsTable(const Stats& stats);

/// Cores, taps with format, source and sink, and devices.
std::string ScenarioTable(const CoProcessor& co_processor, const std::filesystem::path& directory,
                          double speed);

}  // namespace kvox::sim
