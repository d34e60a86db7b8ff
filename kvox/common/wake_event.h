// An event that ends another thread's wait.
#pragma once

#include <poll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <cstdint>

#include "kvox/common/unique_fd.h"

namespace kvox {

/// An eventfd. Signals add up to one until they are cleared.
class WakeEvent {
 public:
  /// RT: any thread.
  void Signal() {
    const uint64_t one = 1;
    // Fails only when the counter is full, and then the waiter is awake already.
    [[maybe_unused]] const ssize_t written = write(fd_.get(), &one, sizeof one);
  }
  /// RT: the waiting thread.
  void Clear() {
    uint64_t count;
    [[maybe_unused]] const ssize_t got = read(fd_.get(), &count, sizeof count);
  }
  /// The waiting thread: returns once there is a signal, without clearing it.
  void Wait() const {
    pollfd event{.fd = fd_.get(), .events = POLLIN, .revents = 0};
    while (poll(&event, 1, -1) < 0 && errno == EINTR) {
    }
  }
  int fd() const { return fd_.get(); }

 private:
  const UniqueFd fd_{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
};

}  // namespace kvox
