// Closes sockets whose queues may contain descriptors of a peer. Closing such a descriptor can wait
// as long as the peer has asked for (SO_LINGER), so no thread does it that anybody waits for.
#pragma once

#include <memory>
#include <thread>

#include "kvox/common/mutex.h"
#include "kvox/common/unique_fd.h"
#include "platform/linux/credentials.h"
#include "platform/linux/fair_queue.h"

namespace kvox::binder {

/// One per process. Any thread, except where noted.
class Closer {
 public:
  static Closer& Get();

  /// Starts the thread unless it runs. False when the system refuses.
  bool Start();
  /// Waits until all is closed. Not on the thread.
  void Stop();

  /// The peer sees the end at once; `until_closed` is released when the socket is closed. Users
  /// take turns, so that nobody waits for all that another has sent. Without the thread it is
  /// closed when this returns.
  void Close(UniqueFd socket, const Credentials& peer,
             std::shared_ptr<void> until_closed = nullptr);

  /// Whether so many sockets wait that no more should be accepted, or the descriptors run out.
  bool behind() const;

 private:
  struct Closing {
    WorkOwner owner;
    UniqueFd socket;
    std::shared_ptr<void> until_closed;
  };

  static constexpr WorkLimits kNoLimits{};  // its owners are not limited

  Closer() = default;
  void Run();

  mutable Mutex mutex_;  // a leaf lock
  CondVar changed_;
  bool stopping_ GUARDED_BY(mutex_) = false;
  size_t waiting_ GUARDED_BY(mutex_) = 0;
  FairQueue<Closing> sockets_ GUARDED_BY(mutex_){kNoLimits};
  std::thread thread_ GUARDED_BY(mutex_);
};

}  // namespace kvox::binder
