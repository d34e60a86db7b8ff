// The command line of kvoxctl, parsed into a verb and its words.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "client/command_line/verb.h"
#include "libkvox/calls/daemon.h"

namespace kvox::client {

struct CommandLine {
  const Verb* verb = nullptr;  // nullptr: only print `help`
  std::string help;
  Input in;
  Format format = Format::kText;
  Color color = Color::kAuto;
  std::chrono::milliseconds wait = kLongestWait;
};

/// Parses `words`, which do not include the program's name. Throws UsageError.
CommandLine ReadCommandLine(const std::vector<std::string>& words, const std::string& version);

}  // namespace kvox::client
