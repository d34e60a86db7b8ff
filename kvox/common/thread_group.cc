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

size_t ThreadGroup::Start(const char* name, std::function<void()> body, uint64_t owner,
                          size_t after) {
  std::function<void()> replaced;  // what it owns goes after the lock
  MutexLock lock(mutex_);
  const auto share = static_cast<size_t>(
      std::count_if(running_.begin(), running_.end(),
                    [owner](const auto& entry) { return entry.second.IsOf(owner); }));
  if (running_.size() < limit_ && share < owner_limit_) {
    const size_t number = ++last_number_;
    Running& entry = running_[number];
    entry = {.thread = {}, .owner = owner, .next = std::move(body), .next_owner = owner};
    try {
      entry.thread = std::thread([this, number, text = std::string(name)] {
        SetThreadName(text.c_str());
        while (const auto work = Next(number)) work();
      });
      return number;
    } catch (const std::system_error&) {
      body = std::move(entry.next);
      running_.erase(number);
    }
  }
  const auto heir = running_.find(after);
  if (heir == running_.end() || (!heir->second.IsOf(owner) && share >= owner_limit_)) return 0;
  replaced = std::exchange(heir->second.next, std::move(body));
  heir->second.next_owner = owner;
  return after;
}

size_t ThreadGroup::running() const {
  MutexLock lock(mutex_);
  return running_.size();
}

/// What the thread runs next. After none the thread has left the table; the one that it joins has
/// left it before.
std::function<void()> ThreadGroup::Next(size_t number) {
  std::thread before;
  MutexLock lock(mutex_);
  Running& entry = running_.at(number);
  if (entry.next) {
    entry.owner = entry.next_owner;
    return std::exchange(entry.next, nullptr);
  }
  before = std::exchange(finished_, std::move(entry.thread));
  running_.erase(number);
  lock.Unlock();
  if (before.joinable()) before.join();
  lock.Lock();
  finished_one_.NotifyAll();
  return nullptr;
}

}  // namespace kvox
