// Chains of audio through processors, as changes of a daemon's state.
//
// Pure: no I/O.
#pragma once

#include <string>
#include <vector>

#include "libkvox/graph/state.h"

namespace kvox::client {

/// The state with the route running. A tap point without a buffer gets one that nobody uses. Throws
/// Failure when there is no such object, or somebody else uses one that only one can use.
State WithRoute(const Route& route, const Snapshot& snapshot);

/// The state without the processors, and without what only they used: buffers are stopped, tap
/// points unbound from them and, once they are bound to none, disabled. Throws Failure(kNoObject).
State WithoutProcessors(const std::vector<std::string>& processors, const Snapshot& snapshot);

// What both are made of.

/// A buffer of this direction that nobody uses; those that use cases need come last. Throws
/// Failure, which names the users.
std::string FreeBuffer(Direction direction, const Snapshot& snapshot, const State& state);

/// "pass reads it", "2:genp.0 streams into it", ...; "" for nobody.
std::string UsersOf(const std::string& buffer, const State& state);

/// Whether a processor reads or writes the buffer.
bool HasProcessor(const std::string& buffer, const State& state);

}  // namespace kvox::client
