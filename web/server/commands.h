// The commands that a page may give: verbs of kvoxctl, which runs them.
#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

namespace kvox::web {

/// Checks the words of a command, and returns them as kvoxctl's arguments. Only verbs of a list,
/// and no option that names a file of this machine. Throws client::UsageError. Pure.
std::vector<std::string> CheckCommand(const std::vector<std::string>& words, bool read_only);

/// How a program ended.
struct Ran {
  int status = 0;  // minus the signal that ended it
  std::string out;
  std::string err;
};

/// Runs a program, which reads `input`. One that takes longer than `wait`, prints more than 8 MiB
/// or runs while `ending` becomes true is killed. Throws std::runtime_error when it cannot be
/// started. Any thread of a process that ignores SIGPIPE.
Ran RunProgram(const std::string& program, const std::vector<std::string>& arguments,
               const std::string& input, std::chrono::milliseconds wait,
               const std::atomic<bool>& ending);

}  // namespace kvox::web
