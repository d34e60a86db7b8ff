// Collects what the process logs, for tests that look at log lines.
#pragma once

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "kvox/common/log.h"
#include "kvox/common/mutex.h"

namespace kvox {

class LogCapture : public LogTarget {
 public:
  LogCapture() : scope_(*this) {}

  void Write(LogPriority priority, const char*, const char* line) override {
    MutexLock lock(mutex_);
    lines_.push_back(Letter(priority) + std::string(" ") + line);
    changed_.NotifyAll();
  }

  /// Every line so far, its priority's letter first ("I Start Main\n"), and forgets them.
  std::vector<std::string> Take() {
    MutexLock lock(mutex_);
    return std::exchange(lines_, {});
  }

  size_t Count(const std::string& part) {
    MutexLock lock(mutex_);
    return CountLocked(part);
  }

  /// Waits until at least `count` lines contain `part`; false after ten seconds.
  bool WaitFor(const std::string& part, size_t count = 1) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    MutexLock lock(mutex_);
    while (CountLocked(part) < count) {
      if (!changed_.WaitUntil(mutex_, deadline)) return CountLocked(part) >= count;
    }
    return true;
  }

 private:
  static char Letter(LogPriority priority) {
    if (priority == LogPriority::kInfo) return 'I';
    return priority == LogPriority::kWarning ? 'W' : 'E';
  }

  size_t CountLocked(const std::string& part) REQUIRES(mutex_) {
    return static_cast<size_t>(std::count_if(
        lines_.begin(), lines_.end(),
        [&](const std::string& line) { return line.find(part) != std::string::npos; }));
  }

  Mutex mutex_;
  CondVar changed_;
  std::vector<std::string> lines_ GUARDED_BY(mutex_);
  ScopedProcessLog scope_;
};

}  // namespace kvox
