// The state of a daemon as a file for people: TOML, whose keys the manual lists. Pure.
#pragma once

#include <string>
#include <string_view>

#include "client/model/snapshot.h"
#include "client/state/state.h"

namespace kvox::client {

/// The file for what the snapshot shows, in an order that depends on nothing else. Comments say
/// what the daemon does not tell.
std::string WriteState(const Snapshot& snapshot);

/// The same as one JSON document on one line.
std::string StateAsJson(const Snapshot& snapshot);

/// Reads a file whose names are those of `snapshot`. Throws Failure: kWrongUsage, or kNoObject for
/// a name that the daemon does not know. The text is "ORIGIN:LINE: KEY: problem; expectation".
State ReadState(std::string_view text, const std::string& origin, const Snapshot& snapshot);

}  // namespace kvox::client
