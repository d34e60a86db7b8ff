#include "tests/campaign/hang_guard.h"

#include <signal.h>

#include "tests/support/proc.h"

namespace kvox::campaign {
namespace {

constexpr Ms kLook{100};

/// Longer than any command may take, those before it included: a buffer's device is opened for four
/// seconds.
constexpr Ms kCallLimit{30000};

}  // namespace

HangGuard::HangGuard(const CallWatch& calls, pid_t daemon)
    : calls_(calls), daemon_(daemon), thread_([this] { Watch(); }) {}

HangGuard::~HangGuard() {
  stopping_ = true;
  thread_.join();
}

void HangGuard::Watch() {
  while (!stopping_) {
    std::this_thread::sleep_for(kLook);
    const auto call = calls_.Overdue(kCallLimit);
    if (!call) continue;
    {
      const std::lock_guard lock(mutex_);
      hang_ = *call + " does not return\n" + DescribeProcess(daemon_);
    }
    kill(daemon_, SIGKILL);
    return;
  }
}

std::string HangGuard::Hang() const {
  const std::lock_guard lock(mutex_);
  return hang_;
}

}  // namespace kvox::campaign
