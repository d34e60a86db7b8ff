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

  /// Runs `body` on a new thread of this name (at most 15 characters) and returns the thread's
  /// number. When the group or the owner has its limit, or the system cannot create a thread,
  /// `body` runs on thread `after` as soon as what that runs now has returned, in place of anything
  /// else that was to follow there. 0 when there is no such thread either.
  size_t Start(const char* name, std::function<void()> body, uint64_t owner = 0, size_t after = 0);

  /// Threads whose body has not returned yet.
  size_t running() const;

 private:
  struct Running {
    std::thread thread;
    uint64_t owner;  // of what runs now
    std::function<void()> next;
    uint64_t next_owner;

    bool IsOf(uint64_t who) const { return owner == who || (next && next_owner == who); }
  };

  std::function<void()> Next(size_t number);

  const size_t limit_;
  const size_t owner_limit_;
  mutable Mutex mutex_;  // a leaf lock
  CondVar finished_one_;
  size_t last_number_ GUARDED_BY(mutex_) = 0;
  std::unordered_map<size_t, Running> running_ GUARDED_BY(mutex_);
  std::thread finished_ GUARDED_BY(mutex_);  // ended last, not joined yet
};

}  // namespace kvox
