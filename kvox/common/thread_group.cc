#include "kvox/common/thread_group.h"

#include <algorithm>
#include <string>
#include <system_error>
#include <utility>

#include "kvox/common/kvox_utils.h"

namespace kvox {

ThreadGroup::~ThreadGroup() {
  std::thread last;
  {
    MutexLock lock(mutex_);
    while (!running_.empty()) finished_one_.Wait(mutex_);
    last = std::move(finished_);
  }
  if (last.joinable()) last.join();
}

bool ThreadGroup::Start(const char* name, std::function<void()> body, uint64_t owner) {
  MutexLock lock(mutex_);
  const auto of_owner = std::count_if(running_.begin(), running_.end(), [owner](const auto& entry) {
    return entry.second.owner == owner;
  });
  if (running_.size() >= limit_ || static_cast<size_t>(of_owner) >= owner_limit_) return false;
  const size_t number = next_number_++;
  try {
    // Finish() takes the lock, so the thread is in the table before it ends.
    std::thread thread([this, number, text = std::string(name), run = std::move(body)]() mutable {
      SetThreadName(text.c_str());
      run();
      run = nullptr;
      Finish(number);
    });
    running_.emplace(number, Running{std::move(thread), owner});
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

size_t ThreadGroup::running() const {
  MutexLock lock(mutex_);
  return running_.size();
}

/// On the ending thread. The thread that it joins has already finished.
void ThreadGroup::Finish(size_t number) {
  std::thread before;
  MutexLock lock(mutex_);
  before = std::exchange(finished_, std::move(running_.at(number).thread));
  running_.erase(number);
  lock.Unlock();
  if (before.joinable()) before.join();
  lock.Lock();
  finished_one_.NotifyAll();
}

}  // namespace kvox
