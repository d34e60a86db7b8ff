// Finds a call that does not return, and makes it return by killing the daemon.
#pragma once

#include <sys/types.h>

#include <set>
#include <string>
#include <thread>

#include "kvox/common/mutex.h"
#include "tests/campaign/run_conditions.h"

namespace kvox::campaign {

/// Any thread.
class CallWatchdog {
 public:
  /// A call in flight, as long as the object lives.
  class Call {
   public:
    Call(CallWatchdog& watchdog, const char* name);
    ~Call();
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

   private:
    friend class CallWatchdog;
    CallWatchdog& watchdog_;
    const char* const name_;
    const Clock::time_point begin_ = Clock::now();
  };

  explicit CallWatchdog(pid_t daemon);

  /// Which call did not return, and what every thread of the daemon was waiting in then. Empty when
  /// all have returned in time.
  std::string Hang() const;
  /// The call that took longest: "StartIo 402 ms".
  std::string Slowest() const;

 private:
  void Watch(const std::stop_token& stop);
  /// The name of a call that is overdue; null when there is none.
  const char* Overdue() const;

  const pid_t daemon_;
  mutable Mutex mutex_;
  std::set<const Call*> calls_ GUARDED_BY(mutex_);
  Clock::duration slowest_time_ GUARDED_BY(mutex_){};
  const char* slowest_ GUARDED_BY(mutex_) = "none";
  std::string hang_ GUARDED_BY(mutex_);
  std::jthread thread_;
};

}  // namespace kvox::campaign
