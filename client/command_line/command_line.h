// The command line of kvoxctl, read into a verb and its words.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "client/calls/call_deadline.h"
#include "client/command_line/verb.h"
#include "client/output/printer.h"

namespace kvox::client {

/// What was asked for.
struct CommandLine {
  const Verb* verb = nullptr;  // nullptr: `help` is all that is wanted
  std::string help;
  Input in;
  Format format = Format::kText;
  Color color = Color::kAuto;
  std::chrono::milliseconds wait = kLongestWait;
};

/// `words` without the program's name. Throws UsageError.
CommandLine ReadCommandLine(const std::vector<std::string>& words, const std::string& version);

}  // namespace kvox::client
