// Which lines the log gets about peers that were cut off: a few a second, so that a peer that
// provokes it all the time cannot fill the log, and the number of all others. No I/O.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "kvox/common/mutex.h"
#include "platform/linux/credentials.h"

namespace kvox::binder {

/// Any thread.
class CutOffLog {
 public:
  using Clock = std::chrono::steady_clock;

  /// The line for a peer that was cut off at `now` because of `fault`; "" when it is only counted.
  /// `first_left_out` tells that Rest() is to be asked in a second.
  std::string Line(const Credentials& peer, const char* fault, Clock::time_point now,
                   bool* first_left_out);

  /// The line for those that were only counted since the last time.
  std::string Rest();

 private:
  Mutex mutex_;
  Clock::time_point second_begin_ GUARDED_BY(mutex_){};
  int lines_ GUARDED_BY(mutex_) = 0;
  int64_t left_out_ GUARDED_BY(mutex_) = 0;
};

/// Logs that a peer was cut off, now or in the count that follows. On the pool, for the log may
/// block.
void ReportCutOff(const Credentials& peer, const char* fault);

}  // namespace kvox::binder
