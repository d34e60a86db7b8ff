#include "platform/linux/call_table.h"

#include <utility>

namespace kvox::binder {

std::future<Reply> CallTable::Add(uint64_t* number) {
  MutexLock lock(mutex_);
  *number = ++last_number_;
  return calls_[*number].get_future();
}

bool CallTable::Abandon(uint64_t number) {
  MutexLock lock(mutex_);
  if (calls_.erase(number) == 0) return false;
  abandoned_.push_back(number);
  return true;
}

bool CallTable::Finish(uint64_t number, Reply* reply) {
  MutexLock lock(mutex_);
  auto call = calls_.extract(number);
  if (call.empty()) return std::erase(abandoned_, number) > 0;
  lock.Unlock();
  call.mapped().set_value(std::move(*reply));
  return true;
}

void CallTable::FinishAll(binder_status_t status) {
  std::unordered_map<uint64_t, std::promise<Reply>> calls;
  {
    MutexLock lock(mutex_);
    calls.swap(calls_);
  }
  for (auto& [number, call] : calls) call.set_value({status});
}

bool CallTable::empty() const {
  MutexLock lock(mutex_);
  return calls_.empty();
}

}  // namespace kvox::binder
