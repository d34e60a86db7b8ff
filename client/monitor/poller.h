// Looks at the daemon on a thread of its own, so that who shows it never waits for an answer.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <thread>

#include "client/errors.h"
#include "client/monitor/sampler.h"
#include "kvox/common/mutex.h"
#include "kvox/common/wake_event.h"

namespace kvox::client {

/// What came of a look.
struct Look {
  std::optional<Sample> sample;  // none: see why_not
  std::string why_not;
  double took_ms = 0;
};

/// Main thread, but for the thread "looker" within.
class Looker {
 public:
  using Clock = std::chrono::steady_clock;

  /// Throws std::runtime_error.
  explicit Looker(Survey::Wanted wanted);

  /// Waits two seconds for the call under way; when it is not answered then, the program ends with
  /// kTimedOut and a message.
  ~Looker();
  Looker(const Looker&) = delete;
  Looker& operator=(const Looker&) = delete;

  /// Begins a look, unless one is under way or has not been taken.
  void Begin();

  /// The outcome of the last look, once.
  std::optional<Look> Take();

  /// For how long the look under way has lasted; 0 when none is.
  Clock::duration UnderWay();

  /// Readable while there is something to take.
  int fd() const { return done_.fd(); }

 private:
  enum class Phase { kIdle, kAsked, kDone };

  void Run();
  bool WaitForWork();

  Survey survey_;  // the thread's
  WakeEvent done_;
  Mutex mutex_;
  CondVar changed_;
  Phase phase_ GUARDED_BY(mutex_) = Phase::kIdle;
  bool ending_ GUARDED_BY(mutex_) = false;
  Clock::time_point begin_ GUARDED_BY(mutex_);
  Look look_ GUARDED_BY(mutex_);
  std::thread thread_;
};

}  // namespace kvox::client
