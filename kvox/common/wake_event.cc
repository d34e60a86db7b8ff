#include "kvox/common/wake_event.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace kvox {

WakeEvent::WakeEvent() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
WakeEvent::~WakeEvent() {
  if (fd_ >= 0) close(fd_);
}

void WakeEvent::Signal() {
  const uint64_t one = 1;
  // Fails only when the counter is full, and then the waiter is awake already.
  [[maybe_unused]] const ssize_t written = write(fd_, &one, sizeof one);
}

void WakeEvent::Clear() {
  uint64_t count;
  [[maybe_unused]] const ssize_t got = read(fd_, &count, sizeof count);
}

void WakeEvent::Wait() const {
  pollfd event{.fd = fd_, .events = POLLIN, .revents = 0};
  while (poll(&event, 1, -1) < 0 && errno == EINTR) {
  }
}

}  // namespace kvox
