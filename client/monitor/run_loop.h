// The loop of a program that runs until interrupted.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "client/command_line/input.h"
#include "client/monitor/poller.h"
#include "client/system/signals.h"

namespace kvox::client {

/// What has happened, possibly several things.
struct LoopEvent {
  int signal = 0;
  std::optional<PollResult> result;
  bool input = false;   // there is something to read
  bool closed = false;  // the reader of our output, or the terminal, is gone
};

/// Polls the daemon once per interval, and waits for the next event. Main thread.
class RunLoop {
 public:
  using Clock = std::chrono::steady_clock;

  /// Waits for input on `input` without reading it; -1 for none. Throws std::runtime_error.
  RunLoop(const SignalFd& signals, Sampler::Wanted wanted, std::chrono::milliseconds interval,
          int input = -1);

  /// Returns when something has happened, `until` has come, or half a second has passed.
  LoopEvent Next(Clock::time_point until);

  /// Polls at once.
  void Refresh() { due_ = Clock::now(); }

  /// How long the current poll has been waiting for a reply.
  Clock::duration InFlight() { return poller_.InFlight(); }

 private:
  const SignalFd& signals_;
  const std::chrono::milliseconds interval_;
  const int input_;
  Clock::time_point due_ = Clock::now();
  Poller poller_;
};

/// The value of --interval: from 0.1 to 3600 seconds, one second by default. Throws UsageError.
std::chrono::milliseconds IntervalOf(const Input& in);

/// The value of an option that limits a count; 0 for no limit. Throws UsageError.
int LimitOf(const Input& in, const char* option);

/// Now, as local time "12:34:56.789".
std::string LocalTime();

/// Now, as "2026-01-31T12:34:56.789Z".
std::string UtcTime();

}  // namespace kvox::client
