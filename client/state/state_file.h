// A daemon's configuration as a TOML file; `kvoxctl export --help` lists its keys.
#pragma once

#include <string>
#include <string_view>

#include "client/model/snapshot.h"
#include "client/output/printer.h"
#include "client/state/state.h"

namespace kvox::client {

/// The file for a snapshot, always in the same order. Comments say what the daemon does not report.
std::string WriteState(const Snapshot& snapshot);

/// The same as a JSON document.
Json StateAsJson(const Snapshot& snapshot);

/// Reads a file whose names are those of `snapshot`. Throws Failure: kWrongUsage, or kNoObject for
/// a name that the daemon does not know. The text is "ORIGIN:LINE: KEY: problem; expectation".
State ReadState(std::string_view text, const std::string& origin, const Snapshot& snapshot);

}  // namespace kvox::client
