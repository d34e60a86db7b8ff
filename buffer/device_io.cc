#include "buffer/device_io.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

#include "kvox/common/kvox_utils.h"

namespace kvox {
namespace {

constexpr int64_t kNsPerSecond = 1'000'000'000;

class System : public DeviceIo {
 public:
  // Without O_NONBLOCK opening a FIFO would wait for its other end, without O_NOCTTY a terminal
  // would become ours.
  int Open(const char* path, Direction direction) override {
    const int access = direction == Direction::kRead ? O_RDONLY : O_WRONLY;
    return open(path, access | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  }

  void Close(int fd) override { close(fd); }

  Ready Wait(int fd, Direction direction, int wake_fd, std::chrono::nanoseconds timeout) override {
    const short events = direction == Direction::kRead ? POLLIN : POLLOUT;
    pollfd fds[] = {{.fd = fd, .events = events, .revents = 0},
                    {.fd = wake_fd, .events = POLLIN, .revents = 0}};
    const timespec time = {.tv_sec = timeout.count() / kNsPerSecond,
                           .tv_nsec = timeout.count() % kNsPerSecond};
    const int count = ppoll(fds, 2, &time, nullptr);
    if (count < 0) return errno == EINTR ? Ready::kWoken : Ready::kFailed;
    if (count == 0) return Ready::kTimeout;
    return fds[1].revents != 0 ? Ready::kWoken : Ready::kDevice;
  }

  int Watch(int fd, int wake_fd) override {
    const int watch = epoll_create1(EPOLL_CLOEXEC);
    if (watch < 0 || (Add(watch, fd, kDeviceTag) && Add(watch, wake_fd, kWakeTag))) return watch;
    close(watch);
    return -1;
  }

  Ready WaitWatched(int watch, int timeout_ms) override {
    epoll_event events[2];
    const int count = epoll_wait(watch, events, 2, timeout_ms);
    if (count < 0) return errno == EINTR ? Ready::kWoken : Ready::kFailed;
    if (count == 0) return Ready::kTimeout;
    const bool woken =
        events[0].data.u32 == kWakeTag || (count > 1 && events[1].data.u32 == kWakeTag);
    return woken ? Ready::kWoken : Ready::kDevice;
  }

  ssize_t Read(int fd, std::span<std::byte> bytes) override {
    return read(fd, bytes.data(), bytes.size());
  }

  ssize_t Write(int fd, std::span<const std::byte> bytes) override {
    return write(fd, bytes.data(), bytes.size());
  }

  uint64_t NowNs() override { return GetTimestampNs(); }

 private:
  static constexpr uint32_t kDeviceTag = 0;
  static constexpr uint32_t kWakeTag = 1;

  static bool Add(int watch, int fd, uint32_t tag) {
    epoll_event event{.events = EPOLLIN, .data = {.u32 = tag}};
    return epoll_ctl(watch, EPOLL_CTL_ADD, fd, &event) == 0;
  }
};

}  // namespace

DeviceIo& SystemDeviceIo() {
  static System io;
  return io;
}

}  // namespace kvox
