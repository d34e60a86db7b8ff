// Inspects the machine for the doctor.
#pragma once

#include <chrono>
#include <string>

#include "client/doctor/facts.h"

namespace kvox::client {

/// Opens no device and changes nothing. `captures` is the directory for captures, "" for the
/// default; `wait` is the longest wait for a reply of the daemon.
Facts GatherFacts(const std::string& captures, std::chrono::milliseconds wait);

// Parts of it.

/// Finds the daemon, pings it and asks for its interface's version; waits for each for `wait` at
/// most.
DaemonReply ProbeDaemon(std::chrono::milliseconds wait);

/// A running process; mostly unknown if it may not be inspected.
ProcessFacts InspectProcess(int pid);

/// Parses the texts of /proc/PID/limits and /proc/PID/status. Missing values stay unknown.
ProcessFacts ParseProcess(int pid, const std::string& limits, const std::string& status);

}  // namespace kvox::client
