// The work of `kvoxctl listen`.
#pragma once

#include <string>

#include "client/output/printer.h"
#include "libkvox/calls/daemon.h"

namespace kvox::client {

/// Plays a point's audio through this machine's sound system, until interrupted. Returns the exit
/// status. Throws Failure, also when no program that plays is installed. To be called before any
/// thread starts.
int Listen(Daemon& daemon, const std::string& point, const Printer& out);

}  // namespace kvox::client
