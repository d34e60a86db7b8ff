// What the verbs that carry audio share: interrupts, a line of progress, and the end.
#pragma once

#include <chrono>
#include <cstdint>
#include <set>
#include <string>

#include "client/output/printer.h"
#include "libkvox/errors.h"

namespace kvox::client {

/// Ctrl-C, SIGTERM and SIGHUP, as questions between two steps instead of the end of the process.
/// Those that are ignored, as under nohup, stay ignored. To be made before any thread starts.
class Interrupts {
 public:
  Interrupts();

  /// Whether one has come. Does not wait.
  bool Came();

  /// Whether one waits for Came(). Any thread.
  static bool Pending();

 private:
  bool came_ = false;
};

/// "0:12.3  3 missed" on a terminal's standard error, over itself; nothing elsewhere. Main thread.
class Progress {
 public:
  void Show(double seconds, uint64_t missed);
  /// A line of its own.
  void Note(const std::string& text);
  /// Once for each point that has no audio after three seconds.
  void Hint(const std::string& point, bool flows);
  void Clear();

 private:
  using Clock = std::chrono::steady_clock;
  const Clock::time_point begin_ = Clock::now();
  Clock::time_point shown_ = {};
  std::set<std::string> hinted_;
};

/// How long to wait for a block before looking for interrupts.
inline constexpr std::chrono::milliseconds kStep{50};

}  // namespace kvox::client
