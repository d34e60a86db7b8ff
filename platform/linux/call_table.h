// The calls of one connection that wait for their replies.
#pragma once

#include <android/binder_status.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "kvox/common/mutex.h"
#include "platform/linux/parcel.h"

namespace kvox::binder {

/// One thread's wait for one reply. Lives on that thread's stack.
class WaitingCall {
 public:
  /// Ends the wait; once.
  void Finish(binder_status_t status, std::unique_ptr<AParcel> reply);
  /// STATUS_OK sets `reply`.
  binder_status_t Wait(std::unique_ptr<AParcel>* reply);
  /// False when the wait has not ended by then.
  bool WaitUntil(std::chrono::steady_clock::time_point deadline);

 private:
  Mutex mutex_;
  CondVar finished_;
  bool done_ GUARDED_BY(mutex_) = false;
  binder_status_t status_ GUARDED_BY(mutex_) = STATUS_OK;
  std::unique_ptr<AParcel> reply_ GUARDED_BY(mutex_);
};

/// Any thread. A call leaves the table before it is finished, so that it is finished once.
class CallTable {
 public:
  /// Answers the call's number. `call` stays until it is finished or removed.
  uint64_t Add(WaitingCall* call);
  /// Gives a call up. False when someone else has taken the call out and finishes it.
  bool Remove(uint64_t number);
  /// Hands a reply over. False when no call that has not had its reply has that number; the reply
  /// of a call that was given up is dropped into `stray`.
  bool Finish(uint64_t number, binder_status_t status, std::unique_ptr<AParcel> reply,
              std::unique_ptr<AParcel>* stray);
  void FinishAll(binder_status_t status);
  bool empty() const;

 private:
  // A handful: one for each thread of this process that calls this peer.
  using Calls = std::vector<std::pair<uint64_t, WaitingCall*>>;

  WaitingCall* RemoveLocked(uint64_t number) REQUIRES(mutex_);

  mutable Mutex mutex_;
  uint64_t last_number_ GUARDED_BY(mutex_) = 0;
  Calls calls_ GUARDED_BY(mutex_);
  std::vector<uint64_t> given_up_ GUARDED_BY(mutex_);  // and not answered yet
};

}  // namespace kvox::binder
