#include "tests/campaign/call_watchdog.h"

#include <signal.h>

#include "tests/support/proc.h"

namespace kvox::campaign {
namespace {

constexpr Ms kInterval{100};

/// Longer than any command may take with those before it: opening a buffer's device takes up to
/// four seconds.
constexpr Ms kCallLimit{30000};

}  // namespace

CallWatchdog::Call::Call(CallWatchdog& watchdog, const char* name)
    : watchdog_(watchdog), name_(name) {
  MutexLock lock(watchdog_.mutex_);
  watchdog_.calls_.insert(this);
}

CallWatchdog::Call::~Call() {
  MutexLock lock(watchdog_.mutex_);
  watchdog_.calls_.erase(this);
  const auto time = Clock::now() - begin_;
  if (time <= watchdog_.slowest_time_) return;
  watchdog_.slowest_time_ = time;
  watchdog_.slowest_ = name_;
}

CallWatchdog::CallWatchdog(pid_t daemon)
    : daemon_(daemon), thread_([this](const std::stop_token& stop) { Watch(stop); }) {}

void CallWatchdog::Watch(const std::stop_token& stop) {
  while (!stop.stop_requested()) {
    std::this_thread::sleep_for(kInterval);
    const char* const call = Overdue();
    if (call == nullptr) continue;
    {
      MutexLock lock(mutex_);
      hang_ = std::string(call) + " does not return\n" + DescribeProcess(daemon_);
    }
    kill(daemon_, SIGKILL);
    return;
  }
}

const char* CallWatchdog::Overdue() const {
  MutexLock lock(mutex_);
  for (const Call* call : calls_) {
    if (Clock::now() - call->begin_ > kCallLimit) return call->name_;
  }
  return nullptr;
}

std::string CallWatchdog::Hang() const {
  MutexLock lock(mutex_);
  return hang_;
}

std::string CallWatchdog::Slowest() const {
  MutexLock lock(mutex_);
  const auto ms = std::chrono::duration_cast<Ms>(slowest_time_).count();
  return slowest_ + (" " + std::to_string(ms)) + " ms";
}

}  // namespace kvox::campaign
