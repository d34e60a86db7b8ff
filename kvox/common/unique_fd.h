// Owner of a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace kvox {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) Reset(other.Release());
    return *this;
  }
  ~UniqueFd() { Reset(-1); }

  bool valid() const { return fd_ >= 0; }
  int get() const { return fd_; }
  int Release() { return std::exchange(fd_, -1); }

 private:
  void Reset(int fd) {
    const int old = std::exchange(fd_, fd);
    if (old >= 0) close(old);
  }

  int fd_ = -1;
};

}  // namespace kvox
