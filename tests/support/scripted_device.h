// A device whose reads, errors and times a test scripts in advance. One thread plays the script;
// what is written to injects is kept.
#pragma once

#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "buffer/device_io.h"
#include "tests/support/bytes.h"

namespace kvox {

class ScriptedDevice : public DeviceIo {
 public:
  static constexpr int kTapoutFd = 100;
  static constexpr int kInjectFd = 200;

  /// Steps of the tap-out device, one for each wait.
  void Deliver(Bytes bytes, double after_ms = 0) {
    steps_.push_back([this, bytes, after_ms] {
      Advance(after_ms);
      pending_ = bytes;
      return Ready::kDevice;
    });
  }
  void FailRead(int error) {
    steps_.push_back([this, error] {
      read_error_ = error;
      return Ready::kDevice;
    });
  }
  void HangUp() { Deliver({}); }
  void StayQuiet() {
    steps_.push_back([] { return Ready::kTimeout; });
  }
  void Do(std::function<void()> action) {
    steps_.push_back([action] {
      action();
      return Ready::kWoken;
    });
  }

  int Open(const char* path, Direction) override {
    opened.emplace_back(path);
    if (open_errors > 0) {
      --open_errors;
      errno = ENXIO;
      return -1;
    }
    return std::string(path).find("inject") == std::string::npos ? kTapoutFd : kInjectFd;
  }
  void Close(int fd) override { closed.push_back(fd); }

  Ready Wait(int fd, Direction direction, int, std::chrono::nanoseconds timeout) override {
    if (fd < 0) {  // a pause
      now_ns_ += static_cast<uint64_t>(timeout.count());
      pauses_ms.push_back(static_cast<int>(timeout / std::chrono::milliseconds(1)));
      return Ready::kTimeout;
    }
    if (direction == Direction::kWrite) {
      write_waits.push_back(timeout);
      if (on_write_wait) return std::exchange(on_write_wait, nullptr)(), Ready::kWoken;
      if (writable) return Ready::kDevice;
      now_ns_ += static_cast<uint64_t>(timeout.count());
      return Ready::kTimeout;
    }
    if (!pending_.empty()) return Ready::kDevice;  // a read left something
    if (steps_.empty()) return Ready::kFailed;     // ends the reader
    const auto step = std::move(steps_.front());
    steps_.pop_front();
    return step();
  }

  int Watch(int, int) override { return -1; }
  Ready WaitWatched(int, int) override { return Ready::kFailed; }

  ssize_t Read(int, std::span<std::byte> area) override {
    requested.push_back(area.size());
    if (read_error_ != 0) {
      errno = std::exchange(read_error_, 0);
      return -1;
    }
    const size_t size = std::min(area.size(), pending_.size());
    std::memcpy(area.data(), pending_.data(), size);
    pending_.erase(pending_.begin(), pending_.begin() + static_cast<ptrdiff_t>(size));
    return static_cast<ssize_t>(size);
  }

  ssize_t Write(int fd, std::span<const std::byte> bytes) override {
    size_t taken = stalled.contains(fd) ? 0 : bytes.size();
    if (!write_limits.empty()) {
      taken = write_limits.front();
      write_limits.pop_front();
    }
    if (taken == 0) {
      errno = write_errno;
      return -1;
    }
    written.emplace_back(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(taken));
    written_to.push_back(fd);
    return static_cast<ssize_t>(taken);
  }

  uint64_t NowNs() override { return now_ns_; }
  void Advance(double ms) { now_ns_ += static_cast<uint64_t>(ms * 1e6); }

  int open_errors = 0;
  bool writable = false;
  int write_errno = EAGAIN;
  std::deque<size_t> write_limits;  // how much each next write takes; 0 fails with write_errno
  std::vector<std::string> opened;
  std::vector<int> closed;
  std::vector<size_t> requested;
  std::vector<int> pauses_ms;
  std::vector<std::chrono::nanoseconds> write_waits;
  std::function<void()> on_write_wait;  // wakes the next wait for an inject
  std::set<int> stalled;                // descriptors that take nothing
  std::vector<Bytes> written;
  std::vector<int> written_to;

 private:
  uint64_t now_ns_ = 1'000'000'000'000;
  std::deque<std::function<Ready()>> steps_;
  Bytes pending_;
  int read_error_ = 0;
};

}  // namespace kvox
