// Runs functions of service threads on an I/O thread, between two packets, where they can access
// the data that belongs to that thread.
#pragma once

#include <atomic>
#include <functional>

#include "kvox/common/mutex.h"
#include "kvox/common/wake_event.h"

namespace kvox {

class IoThreadCall {
 public:
  /// `wake` ends the I/O thread's wait for its device.
  explicit IoThreadCall(WakeEvent& wake) : wake_(wake) {}

  /// Runs `function` on the I/O thread and returns when it is done. Once that thread has ended,
  /// runs it on the calling thread. False if the I/O thread did not run it within a second; it will
  /// then not run at all. Service threads, one at a time.
  bool Run(const std::function<void()>& function);

  // The I/O thread.

  /// RT: whether a function is waiting.
  bool wanted() const { return wanted_.load(std::memory_order_relaxed); }

  /// Runs the waiting function, if there is one. Takes a lock: call only when wanted() is true.
  void Serve();

  /// The I/O thread calls this last.
  void End();

 private:
  WakeEvent& wake_;
  std::atomic<bool> wanted_ = false;
  Mutex mutex_;  // a leaf lock
  CondVar changed_;
  const std::function<void()>* function_ GUARDED_BY(mutex_) = nullptr;  // null once it has run
  bool ended_ GUARDED_BY(mutex_) = false;
};

}  // namespace kvox
