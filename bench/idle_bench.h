// What the daemon takes while nobody needs it.
#pragma once

#include "bench/report.h"

namespace kvox::bench {

/// Counts wake-ups over `seconds` with devices present and nothing enabled.
void MeasureIdle(unsigned seconds, Report& report);

}  // namespace kvox::bench
