// `kvoxctl top`.
#pragma once

#include "client/command_line/verb.h"

namespace kvox::client {

/// Shows every processor and buffer until it is told to end, on the whole screen or, with --batch,
/// as plain rows. Throws Failure and UsageError.
int Top(const Context& context);

}  // namespace kvox::client
