// kvoxctl as a whole process against one that does nothing.
#pragma once

#include "bench/report.h"

namespace kvox::bench {

/// Runs `kvoxctl call Ping` and `true` in alternation. Throws std::runtime_error when either fails.
void MeasureClientProcess(unsigned runs, Report& report);

}  // namespace kvox::bench
