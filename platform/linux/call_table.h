// The calls of one connection that wait for their replies.
#pragma once

#include <android/binder_status.h>

#include <cstdint>
#include <future>
#include <memory>
#include <unordered_map>
#include <vector>

#include "kvox/common/mutex.h"
#include "platform/linux/parcel.h"

namespace kvox::binder {

struct Reply {
  binder_status_t status = STATUS_OK;
  std::unique_ptr<AParcel> parcel = nullptr;  // of a call that succeeded
};

/// Any thread. A call leaves the table before it is finished, so that it is finished once.
class CallTable {
 public:
  /// Adds a call and sets its number.
  std::future<Reply> Add(uint64_t* number);
  /// Gives up a call. False when another thread has removed it and finishes it.
  bool Abandon(uint64_t number);
  /// Hands a reply over; the reply to an abandoned call is left as it is. False when no unanswered
  /// call has that number.
  bool Finish(uint64_t number, Reply* reply);
  void FinishAll(binder_status_t status);
  bool empty() const;

 private:
  mutable Mutex mutex_;
  uint64_t last_number_ GUARDED_BY(mutex_) = 0;
  std::unordered_map<uint64_t, std::promise<Reply>> calls_ GUARDED_BY(mutex_);
  std::vector<uint64_t> abandoned_ GUARDED_BY(mutex_);  // and not answered yet
};

}  // namespace kvox::binder
