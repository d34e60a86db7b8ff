// The session of `kvoxctl record`.
#pragma once

#include <string>
#include <vector>

#include "client/audio/recording.h"
#include "client/output/printer.h"
#include "libkvox/calls/daemon.h"

namespace kvox::client {

struct RecordOptions {
  std::vector<RecordingPlan> files;
  double seconds = 0;          // of audio; 0 for no limit
  std::string gaps_path = {};  // where to list the gaps; "" for nowhere
};

/// Writes the points' audio until there is enough of it, the user interrupts or all of it is over.
/// Files are written by this thread, so that a slow disk delays no block. Missing blocks become
/// silence, and are listed. Prints a summary; returns the exit status, kGaps when something is
/// missing. Throws Failure; the files then hold what came before. To be called before any thread
/// starts.
int Record(Daemon& daemon, const RecordOptions& options, const Printer& out);

}  // namespace kvox::client
