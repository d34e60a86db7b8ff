// A question to the daemon that ends for sure.
#pragma once

#include <chrono>

#include "client/doctor/facts.h"

namespace kvox::client {

/// Looks for the daemon, pings it and asks for its interface's version, and gives up after `wait`.
/// A child process does that, because a call that is never answered ends with its process only. To
/// be called before any thread starts. Throws std::runtime_error when there is no child to be had.
DaemonReply AskDaemon(std::chrono::milliseconds wait);

}  // namespace kvox::client
