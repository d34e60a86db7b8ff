// What a registered service and its connections share.
#pragma once

#include <android/binder_auto_utils.h>

#include <utility>

#include "kvox/common/mutex.h"
#include "platform/linux/limits.h"

namespace kvox::binder {

class ServicePort {
 public:
  explicit ServicePort(ndk::SpAIBinder root) : root_(std::move(root)) {}

  /// The service's object.
  ndk::SpAIBinder root() const {
    MutexLock lock(mutex_);
    return root_;
  }
  /// Answers the object before, for the caller to drop.
  ndk::SpAIBinder Replace(ndk::SpAIBinder root) {
    MutexLock lock(mutex_);
    return std::exchange(root_, std::move(root));
  }

  /// Counts one more client; false when that would be one too many.
  bool Admit() {
    MutexLock lock(mutex_);
    if (clients_ >= kMaxConnections) return false;
    ++clients_;
    return true;
  }
  void Leave() {
    MutexLock lock(mutex_);
    --clients_;
  }

 private:
  mutable Mutex mutex_;
  ndk::SpAIBinder root_ GUARDED_BY(mutex_);
  int clients_ GUARDED_BY(mutex_) = 0;
};

}  // namespace kvox::binder
