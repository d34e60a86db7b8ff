// Ends threads whose last call nobody can hurry: each is joined by the one that ends after it, or
// when the reaper goes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <thread>
#include <unordered_map>

#include "kvox/common/mutex.h"

namespace kvox {

/// Any thread may call.
class ThreadReaper {
 public:
  /// At most `limit` threads at a time, and as many as `share_limit` of one share.
  explicit ThreadReaper(size_t limit, size_t share_limit = SIZE_MAX)
      : limit_(limit), share_limit_(share_limit) {}

  /// Waits for all threads; their bodies must be about to return.
  ~ThreadReaper();

  /// Runs `body` on a new thread of this name (at most 15 characters). False when there are too
  /// many threads, of this share or in all, or the system has none to give.
  bool Start(const char* name, std::function<void()> body, uint64_t share = 0);

  /// Threads whose body has not returned yet.
  size_t running() const;

 private:
  void Finish(size_t number);

  struct Running {
    std::thread thread;
    uint64_t share;
  };

  const size_t limit_;
  const size_t share_limit_;
  mutable Mutex mutex_;  // a leaf lock
  CondVar finished_one_;
  size_t next_number_ GUARDED_BY(mutex_) = 0;
  std::unordered_map<size_t, Running> running_ GUARDED_BY(mutex_);
  std::thread finished_ GUARDED_BY(mutex_);  // the last one that did; not joined yet
};

}  // namespace kvox
