// The clients that keep the daemon busy: threads that repeat a step, and that can be paused between
// two steps.
#pragma once

#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "kvox/common/mutex.h"
#include "tests/campaign/retrying_client.h"

namespace kvox::campaign {

/// The work of one thread. Only that thread calls its functions, except client().
class Worker {
 public:
  Worker(RunContext& run, std::string name) : run_(run), client_(run, std::move(name)) {}
  virtual ~Worker() = default;
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  /// When it returns, nothing is half done.
  virtual void Step(std::mt19937& random) = 0;
  /// Brings everything that it changes into the state of the start.
  virtual void RestoreBaseline() {}
  /// Between two steps.
  virtual Ms Interval() const { return Ms(20); }

  const RetryingClient& client() const { return client_; }

 protected:
  RunContext& run_;
  RetryingClient client_;
};

enum class PauseMode {
  kAsIs,        // as the last steps left it
  kAtBaseline,  // as they were at the start
};

/// One thread.
class WorkerPool {
 public:
  explicit WorkerPool(RunContext& run) : run_(run) {}
  ~WorkerPool() { Stop(); }
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  /// The seed decides what the worker's steps are.
  void Start(std::unique_ptr<Worker> worker, unsigned seed);

  /// Pauses all workers. Returns "" when all are paused within `limit`, else which are not and the
  /// commands that they wait for.
  std::string Pause(PauseMode mode, Ms limit);
  void Resume();
  /// Ends all threads.
  void Stop();

 private:
  struct Member {
    std::unique_ptr<Worker> worker;
    unsigned paused_by = 0;  // the number of the pause that it is in; under mutex_
    std::thread thread;
  };

  void Work(Member& member, unsigned seed);
  /// Returns when no pause is wanted.
  void TakePauses(Member& member);
  std::string Busy() const REQUIRES(mutex_);

  RunContext& run_;
  std::vector<std::unique_ptr<Member>> members_;
  mutable Mutex mutex_;
  CondVar changed_;
  bool pausing_ GUARDED_BY(mutex_) = false;
  unsigned pause_ GUARDED_BY(mutex_) = 0;  // counts pauses
  PauseMode mode_ GUARDED_BY(mutex_) = PauseMode::kAsIs;
};

}  // namespace kvox::campaign
