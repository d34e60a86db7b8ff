// The system calls of the packet path; an interface that tests replace.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>

namespace kvox {

class DeviceIo {
 public:
  enum class Direction { kRead, kWrite };
  enum class Ready { kDevice, kWoken, kTimeout, kFailed };

  virtual ~DeviceIo() = default;

  /// Opens a device without blocking. A descriptor, or -1 with errno set.
  virtual int Open(const char* path, Direction direction) = 0;
  virtual void Close(int fd) = 0;

  /// RT: waits until `fd` can be read (or written; also when it hung up or failed), or until
  /// `wake_fd` can be read, which comes first when both can, or for `timeout`. A negative `fd`
  /// waits for the other two.
  virtual Ready Wait(int fd, Direction direction, int wake_fd,
                     std::chrono::nanoseconds timeout) = 0;

  /// A persistent watch of `fd` for reading and of `wake_fd`, which is cheaper than passing both to
  /// each wait: a descriptor to be closed before `fd`. -1 if the device cannot be watched.
  virtual int Watch(int fd, int wake_fd) = 0;
  /// RT: as Wait for reading, with a descriptor from Watch.
  virtual Ready WaitWatched(int watch, int timeout_ms) = 0;

  /// RT: as the system calls, -1 with errno set on failure.
  virtual ssize_t Read(int fd, std::span<std::byte> bytes) = 0;
  virtual ssize_t Write(int fd, std::span<const std::byte> bytes) = 0;

  /// RT: the packet clock (GetTimestampNs).
  virtual uint64_t NowNs() = 0;
};

/// The system's own calls. Any thread.
DeviceIo& SystemDeviceIo();

}  // namespace kvox
