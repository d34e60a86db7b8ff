// What looking at a busy daemon takes.
#pragma once

#include <cstdint>

#include "bench/report.h"

namespace kvox::bench {

/// Runs `kvoxctl top --measure` on a terminal for `seconds` beside 32 paced streams. Answers how
/// many packets were lost or came back wrong.
uint64_t MeasureTop(unsigned seconds, Report& report);

}  // namespace kvox::bench
