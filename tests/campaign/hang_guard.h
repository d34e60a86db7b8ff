// Finds a call that does not return, and sees to it that it does: it ends the daemon.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

#include "tests/campaign/caller.h"

namespace kvox::campaign {

class HangGuard {
 public:
  /// Watches on a thread of its own until it is destroyed.
  HangGuard(const CallWatch& calls, pid_t daemon);
  ~HangGuard();
  HangGuard(const HangGuard&) = delete;
  HangGuard& operator=(const HangGuard&) = delete;

  /// Which call did not return, and what every thread of the daemon was waiting in then. Empty when
  /// there was none. Any thread.
  std::string Hang() const;

 private:
  void Watch();

  const CallWatch& calls_;
  const pid_t daemon_;
  mutable std::mutex mutex_;
  std::string hang_;
  std::atomic<bool> stopping_ = false;
  std::thread thread_;
};

}  // namespace kvox::campaign
