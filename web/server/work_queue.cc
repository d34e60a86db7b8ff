#include "web/server/work_queue.h"

#include <exception>
#include <utility>

namespace kvox::web {

WorkQueue::WorkQueue(size_t threads) {
  for (size_t i = 0; i < threads; ++i) threads_.emplace_back([this] { Run(); });
}

WorkQueue::~WorkQueue() {
  {
    const MutexLock lock(mutex_);
    ending_ = true;
    changed_.NotifyAll();
  }
  for (std::thread& thread : threads_) thread.join();
}

void WorkQueue::Add(Work work) {
  const MutexLock lock(mutex_);
  waiting_.push_back(std::move(work));
  changed_.NotifyOne();
}

void WorkQueue::Run() {
  while (true) {
    Work work;
    {
      const MutexLock lock(mutex_);
      while (waiting_.empty() && !ending_) changed_.Wait(mutex_);
      if (waiting_.empty()) return;
      work = std::move(waiting_.front());
      waiting_.pop_front();
    }
    try {
      work();
    } catch (const std::exception&) {  // as when there is no memory: what it was for gets nothing
    }
  }
}

}  // namespace kvox::web
