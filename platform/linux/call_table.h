// Pending calls of one connection.
#pragma once

#include <android/binder_status.h>

#include <cstdint>
#include <future>
#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include "kvox/common/mutex.h"
#include "platform/linux/parcel.h"

namespace kvox::binder {

struct Reply {
  binder_status_t status = STATUS_OK;
  std::unique_ptr<AParcel> parcel = nullptr;  // of a call that succeeded
};

/// Any thread. A call is removed before it is finished, so that it is finished only once.
class CallTable {
 public:
  /// Adds a call and sets its number.
  std::future<Reply> Add(uint64_t* number) {
    MutexLock lock(mutex_);
    *number = ++last_number_;
    return calls_[*number].get_future();
  }

  /// Abandons a call. False when another thread has already removed it and finishes it.
  bool Abandon(uint64_t number) {
    MutexLock lock(mutex_);
    if (calls_.erase(number) == 0) return false;
    abandoned_.push_back(number);
    return true;
  }

  /// Delivers a reply; leaves the one to an abandoned call untouched. False when no unanswered call
  /// has that number.
  bool Finish(uint64_t number, Reply* reply) {
    MutexLock lock(mutex_);
    auto call = calls_.extract(number);
    if (call.empty()) return std::erase(abandoned_, number) > 0;
    lock.Unlock();
    call.mapped().set_value(std::move(*reply));
    return true;
  }

  void FinishAll(binder_status_t status) {
    MutexLock lock(mutex_);
    auto calls = std::exchange(calls_, {});
    lock.Unlock();
    for (auto& [number, call] : calls) call.set_value({status});
  }

  bool empty() const {
    MutexLock lock(mutex_);
    return calls_.empty();
  }

 private:
  mutable Mutex mutex_;
  uint64_t last_number_ GUARDED_BY(mutex_) = 0;
  std::unordered_map<uint64_t, std::promise<Reply>> calls_ GUARDED_BY(mutex_);
  std::vector<uint64_t> abandoned_ GUARDED_BY(mutex_);  // and not answered yet
};

}  // namespace kvox::binder
