// Reads faults from the tables of a scenario. Apart from fault.h, for it needs the TOML library.
#pragma once

#include <string>

#include "kvox/toml/table_reader.h"
#include "sim/faults/fault.h"

namespace kvox::sim {

/// Reads one [[fault]] table. Throws std::invalid_argument for the first thing that is wrong.
FaultConfig ReadFault(const toml::table& node, const std::string& path, const FaultTargets& targets,
                      const TomlOrigin& origin);

}  // namespace kvox::sim
