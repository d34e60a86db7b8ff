// The session of `kvoxctl meter`.
#pragma once

#include <string>
#include <vector>

#include "client/output/printer.h"
#include "libkvox/calls/daemon.h"

namespace kvox::client {

struct MeterOptions {
  std::vector<std::string> points;
  double seconds = 0;  // 0: until interrupted
  bool once = false;   // one reading, of a second
  bool fail_on_clip = false;
};

/// Prints the levels ten times a second over itself on a terminal, elsewhere each second. Returns
/// the exit status: kGaps when the audio ended, or for `fail_on_clip` with the first clipped
/// sample. Throws Failure. To be called before any thread starts.
int Meter(Daemon& daemon, const MeterOptions& options, const Printer& out);

}  // namespace kvox::client
