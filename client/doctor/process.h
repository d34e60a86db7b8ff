// What the kernel tells of a process.
#pragma once

#include <string>

#include "client/doctor/facts.h"

namespace kvox::client {

/// Reads the texts of /proc/PID/limits and /proc/PID/status. What they do not hold stays unknown.
/// Pure.
ProcessFacts ReadProcess(int pid, const std::string& limits, const std::string& status);

/// A process that runs; little is known of one that may not be looked at.
ProcessFacts LookAtProcess(int pid);

}  // namespace kvox::client
