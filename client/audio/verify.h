// The work of `kvoxctl verify`.
#pragma once

#include <string>

#include "client/output/printer.h"

namespace kvox::client {

/// Checks a recording against the list of its gaps: the one in the file at `gaps_path`, or for ""
/// the marks in the WAV file itself. Prints the gaps. Returns kDone when nothing is missing, kGaps
/// when something is, and kRefused when the list is not this file's: audio where a gap is listed.
/// Throws Failure.
int Verify(const std::string& path, const std::string& gaps_path, const Printer& out);

}  // namespace kvox::client
