// `kvoxctl top` and `kvoxctl watch`. Both throw Failure.
#pragma once

#include "client/command_line/verb.h"

namespace kvox::client {

/// Shows every processor and buffer until interrupted, full-screen or, with --batch, as plain rows.
int Top(const Context& context);

/// Prints a line for every change until interrupted.
int Watch(const Context& context);

}  // namespace kvox::client
