// Reads faults from the tables of a scenario. Separate from fault.h, since it needs the TOML
// library.
#pragma once

#include <string>

#include "kvox/toml/table_reader.h"
#include "sim/faults/fault.h"

namespace kvox::sim {

/// Reads one [[fault]] table. Throws std::invalid_argument for the first error.
FaultConfig ReadFault(const toml::table& node, const std::string& path, const FaultTargets& targets,
                      const TomlOrigin& origin);

}  // namespace kvox::sim
