// An answer as text. Pure.
#pragma once

#include <string>

#include "client/calls/call_table.h"

namespace kvox::client {

/// The result's lines as they are, each on a line of its own.
std::string AsLines(const Answer& answer);

/// One JSON object on one line: status, value, lines, and what else the method answered.
std::string AsJson(const Answer& answer);

}  // namespace kvox::client
