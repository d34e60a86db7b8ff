// Ends threads whose last call nobody can hurry: each is joined by the one that ends after it, or
// when the reaper goes.
#pragma once

#include <cstddef>
#include <functional>
#include <thread>
#include <unordered_map>

#include "kvox/common/mutex.h"

namespace kvox {

/// Any thread may call.
class ThreadReaper {
 public:
  /// At most `limit` threads at a time.
  explicit ThreadReaper(size_t limit) : limit_(limit) {}

  /// Waits for all threads; their bodies must be about to return.
  ~ThreadReaper();

  /// Runs `body` on a new thread of this name (at most 15 characters). False when there are too
  /// many threads, or the system has none to give.
  bool Start(const char* name, std::function<void()> body);

  /// Threads whose body has not returned yet.
  size_t running() const;

 private:
  void Finish(size_t number);

  const size_t limit_;
  mutable Mutex mutex_;  // a leaf lock
  CondVar finished_one_;
  size_t next_number_ GUARDED_BY(mutex_) = 0;
  std::unordered_map<size_t, std::thread> running_ GUARDED_BY(mutex_);
  std::thread finished_ GUARDED_BY(mutex_);  // the last one that did; not joined yet
};

}  // namespace kvox
