// The turns of a program that goes on until it is told to end.
#pragma once

#include <chrono>
#include <optional>

#include "client/command_line/verb.h"
#include "client/monitor/poller.h"
#include "client/system/signals.h"

namespace kvox::client {

/// What has happened; several things may.
struct Turn {
  int signal = 0;
  std::optional<Look> look;
  bool input = false;   // there is something to read
  bool closed = false;  // who reads our output, or the terminal, has gone
};

/// Looks at the daemon once every interval, and waits for the next thing to happen. Main thread.
class Live {
 public:
  using Clock = std::chrono::steady_clock;

  /// Nothing is read from `input`; -1 for none. Throws std::runtime_error.
  Live(const SignalFd& signals, Survey::Wanted wanted, std::chrono::milliseconds interval,
       int input = -1);

  /// Answers when something has happened, or `until` has come.
  Turn Next(Clock::time_point until);

  /// Looks at once.
  void Hasten() { due_ = Clock::now(); }

  /// For how long the daemon has owed an answer.
  Clock::duration Unanswered() { return looker_.UnderWay(); }

 private:
  const SignalFd& signals_;
  const std::chrono::milliseconds interval_;
  const int input_;
  Clock::time_point due_ = Clock::now();
  Looker looker_;
};

/// The value of --interval: from 0.1 to 3600 seconds, one second by default. Throws UsageError.
std::chrono::milliseconds ReadInterval(const Input& in);

/// The value of an option that counts something, from 1 on; 0 when it is not given. Throws
/// UsageError.
int ReadCount(const Input& in, const char* option);

/// "12:34:56.789", now and here.
std::string LocalTime();

/// "2026-01-31T12:34:56.789Z", now.
std::string UtcTime();

}  // namespace kvox::client
