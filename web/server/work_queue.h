// Work that may take a while, away from the thread that serves pages.
#pragma once

#include <deque>
#include <functional>
#include <thread>
#include <vector>

#include "kvox/common/mutex.h"

namespace kvox::web {

/// A few threads that do work in turn. Any thread.
class WorkQueue {
 public:
  using Work = std::function<void()>;

  explicit WorkQueue(size_t threads);

  /// Waits until all is done.
  ~WorkQueue();
  WorkQueue(const WorkQueue&) = delete;
  WorkQueue& operator=(const WorkQueue&) = delete;

  /// What work throws is lost.
  void Add(Work work);

 private:
  void Run();

  Mutex mutex_;
  CondVar changed_;
  std::deque<Work> waiting_ GUARDED_BY(mutex_);
  bool ending_ GUARDED_BY(mutex_) = false;
  std::vector<std::thread> threads_;
};

}  // namespace kvox::web
