// Rate limit for log lines about disconnected peers, so that no peer can flood the log. Lines
// beyond the limit are counted.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "kvox/common/mutex.h"
#include "platform/linux/credentials.h"

namespace kvox::binder {

/// Formats the lines; no I/O. Any thread.
class DisconnectLog {
 public:
  using Clock = std::chrono::steady_clock;

  /// The line for a peer that was cut off at `now` because of `fault`; "" when it is only counted.
  /// `first_dropped` asks for a Summary() a second later.
  std::string Line(const Credentials& peer, const char* fault, Clock::time_point now,
                   bool* first_dropped);
  /// The line for those that were only counted since the last summary.
  std::string Summary();

 private:
  Mutex mutex_;
  Clock::time_point second_begin_ GUARDED_BY(mutex_){};
  int lines_ GUARDED_BY(mutex_) = 0;
  int64_t dropped_ GUARDED_BY(mutex_) = 0;
};

/// Logs that a peer was cut off, at once or in the summary. On the pool only: the log may block.
void LogDisconnect(const Credentials& peer, const char* fault);

}  // namespace kvox::binder
