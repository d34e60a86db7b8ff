// `kvoxctl watch`.
#pragma once

#include "client/command_line/verb.h"

namespace kvox::client {

/// Prints a line for every change until it is told to end. Throws Failure and UsageError.
int Watch(const Context& context);

}  // namespace kvox::client
