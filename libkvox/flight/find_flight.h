// Where the daemon's flight log is.
#pragma once

#include <optional>
#include <string>

#include "kvox/common/unique_fd.h"

namespace kvox::client {

/// The flight log that a daemon writes, else one that a daemon has left behind; none where there is
/// neither. Any thread.
std::optional<std::string> FindFlight();

/// The same, open for reading; not valid where there is none that this user may read. Any thread.
UniqueFd OpenFlight();

}  // namespace kvox::client
