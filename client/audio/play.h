// The session of `kvoxctl play`.
#pragma once

#include <string>

#include "client/audio/play_source.h"
#include "client/audio/session.h"
#include "client/output/printer.h"
#include "libkvox/calls/daemon.h"

namespace kvox::client {

/// Plays the file at the point, to its end or until the user interrupts. Prints a summary; returns
/// the exit status, kGaps when the point asked for audio that was late. Throws Failure.
int Play(Daemon& daemon, const std::string& point, SoundReader file, const PlayOptions& options,
         Interrupts& interrupts, const Printer& out);

}  // namespace kvox::client
