#include "sim/devices/packet_port.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace kvox::sim {
bool FifoWriter::HasReader() {
  if (fd_ >= 0) {
    pollfd pipe{.fd = fd_, .events = 0, .revents = 0};
    if (poll(&pipe, 1, 0) > 0) hung_up_ = true;
    return !hung_up_;
  }
  if (barred_) return false;
  fd_ = open(path_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
  if (fd_ < 0) return false;
  fcntl(fd_, F_SETPIPE_SZ, kPipeSize);
  return true;
}

FifoWriter::Result FifoWriter::Offer(std::span<const std::byte> packet) {
  if (const Result result = Flush(); result != Result::kSent) return result;
  const ssize_t written = write(fd_, packet.data(), packet.size());
  if (written < 0) {
    if (errno == EAGAIN || errno == EINTR) return Result::kDropped;
    hung_up_ = true;
    return Result::kNoReader;
  }
  const auto rest = packet.subspan(static_cast<size_t>(written));
  rest_.assign(rest.begin(), rest.end());
  return Result::kSent;
}

FifoWriter::Result FifoWriter::Flush() {
  if (rest_.empty()) return Result::kSent;
  const ssize_t written = write(fd_, rest_.data(), rest_.size());
  if (written > 0) rest_.erase(rest_.begin(), rest_.begin() + written);
  if (written < 0 && errno != EAGAIN && errno != EINTR) {
    hung_up_ = true;
    return Result::kNoReader;
  }
  return rest_.empty() ? Result::kSent : Result::kDropped;
}

void FifoWriter::Close() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
  hung_up_ = false;
  rest_.clear();
}

}  // namespace kvox::sim
