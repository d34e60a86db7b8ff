// A daemon's configuration as a TOML file; `kvoxctl export --help` lists its keys.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "client/output/printer.h"
#include "libkvox/graph/state.h"
#include "libkvox/model/snapshot.h"

namespace kvox::client {

/// What cannot be read and is not in the file: parameters that processors may have set.
struct Omitted {
  std::vector<std::string> parameters;  // names that the daemon lists
  std::vector<std::string> processors;  // ids of those whose kind may add parameters without a name

  bool empty() const { return parameters.empty() && processors.empty(); }
  std::string Text() const;  // "" for nothing
};

Omitted OmittedFrom(const Snapshot& snapshot);

/// The file for a snapshot, always in the same order. Comments say what the daemon does not report.
std::string WriteState(const Snapshot& snapshot);

/// The same as a JSON document.
Json StateAsJson(const Snapshot& snapshot);

/// Reads a file whose names are those of `snapshot`. Throws Failure: kWrongUsage, or kNoObject for
/// a name that the daemon does not know. The text is "ORIGIN:LINE: KEY: problem; expectation".
State ReadState(std::string_view text, const std::string& origin, const Snapshot& snapshot);

}  // namespace kvox::client
