// Samples the daemon on a separate thread, so that a display never waits for a reply.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <thread>

#include "client/monitor/sampler.h"
#include "kvox/common/mutex.h"
#include "kvox/common/wake_event.h"

namespace kvox::client {

struct PollResult {
  std::optional<Sample> sample;  // none: see error
  std::string error = {};
  double took_ms = 0;
};

/// Main thread, except for its own thread "poller".
class Poller {
 public:
  using Clock = std::chrono::steady_clock;

  /// Throws std::runtime_error.
  explicit Poller(Sampler::Wanted wanted);

  /// Waits two seconds for the call in flight; then ends the program with kTimedOut and a message.
  ~Poller();
  Poller(const Poller&) = delete;
  Poller& operator=(const Poller&) = delete;

  /// Starts a poll, unless one is running or its result has not been taken.
  void Start();

  /// The result of the last poll, once.
  std::optional<PollResult> Take();

  /// For how long the poll in flight has been running; 0 when none is.
  Clock::duration InFlight();

  /// Readable while there is a result.
  int fd() const { return done_.fd(); }

 private:
  enum class Phase { kIdle, kPolling, kDone };

  void Run();
  bool WaitForWork();

  Sampler sampler_;  // the thread's
  WakeEvent done_;
  Mutex mutex_;
  CondVar changed_;
  Phase phase_ GUARDED_BY(mutex_) = Phase::kIdle;
  bool ending_ GUARDED_BY(mutex_) = false;
  bool ended_ GUARDED_BY(mutex_) = false;
  Clock::time_point start_ GUARDED_BY(mutex_);
  PollResult result_ GUARDED_BY(mutex_);
  std::thread thread_;
};

}  // namespace kvox::client
