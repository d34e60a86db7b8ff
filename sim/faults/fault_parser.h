// Reads faults from the tables of a scenario. Of its own, as it needs the TOML library.
#pragma once

#include <string>

#include "kvox/toml/table_reader.h"
#include "sim/faults/fault.h"

namespace kvox::sim {

/// Reads one [[fault]] table; what is wrong goes into `report`.
FaultSpec ReadFault(const toml::table& node, const std::string& path, const FaultTargets& targets,
                    Report& report);

}  // namespace kvox::sim
