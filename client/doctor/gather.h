// Inspects the machine for the doctor.
#pragma once

#include <chrono>
#include <string>

#include "client/doctor/facts.h"

namespace kvox::client {

/// Opens no device and changes nothing. `captures` is the directory for captures, "" for the
/// default; `wait` is the longest wait for a reply of the daemon. Call it before any thread starts.
/// Throws std::runtime_error.
Facts GatherFacts(const std::string& captures, std::chrono::milliseconds wait);

// Parts of it.

/// Finds the daemon, pings it and asks for its interface's version, and gives up after `wait`. A
/// child process does that, because a call without a reply only ends with its process. To be called
/// before any thread starts. Throws std::runtime_error when no child can be started.
DaemonReply ProbeDaemon(std::chrono::milliseconds wait);

/// A running process; mostly unknown if it may not be inspected.
ProcessFacts InspectProcess(int pid);

/// Parses the texts of /proc/PID/limits and /proc/PID/status. Missing values stay unknown.
ProcessFacts ParseProcess(int pid, const std::string& limits, const std::string& status);

}  // namespace kvox::client
