// Threads that may be stuck in a foreign call when they are no longer needed. Each is joined by the
// next one that ends, or by the group's destructor.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <thread>
#include <unordered_map>

#include "kvox/common/mutex.h"

namespace kvox {

/// Any thread may call.
class ThreadGroup {
 public:
  /// At most `limit` threads at a time, `owner_limit` of them of the same owner.
  explicit ThreadGroup(size_t limit, size_t owner_limit = SIZE_MAX)
      : limit_(limit), owner_limit_(owner_limit) {}

  /// Waits for all threads; their bodies must be about to return.
  ~ThreadGroup();

  /// Runs `body` on a new thread of this name (at most 15 characters). False when the group or the
  /// owner has its limit, or the system cannot create a thread.
  bool Start(const char* name, std::function<void()> body, uint64_t owner = 0);

  /// Threads whose body has not returned yet.
  size_t running() const;

 private:
  void Finish(size_t number);

  struct Running {
    std::thread thread;
    uint64_t owner;
  };

  const size_t limit_;
  const size_t owner_limit_;
  mutable Mutex mutex_;  // a leaf lock
  CondVar finished_one_;
  size_t next_number_ GUARDED_BY(mutex_) = 0;
  std::unordered_map<size_t, Running> running_ GUARDED_BY(mutex_);
  std::thread finished_ GUARDED_BY(mutex_);  // ended last, not joined yet
};

}  // namespace kvox
