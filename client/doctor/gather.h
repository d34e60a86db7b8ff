// Looks at the machine.
#pragma once

#include <chrono>
#include <string>

#include "client/doctor/facts.h"

namespace kvox::client {

/// Only looks: no device is opened, and nothing is changed. `captures` is the directory where
/// captures are to go, "" for where they go by default; `wait` is the longest for an answer of the
/// daemon. To be called before any thread starts. Throws std::runtime_error.
Facts Gather(const std::string& captures, std::chrono::milliseconds wait);

}  // namespace kvox::client
