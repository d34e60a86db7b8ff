#include "sim/devices/packet_port.h"

#include <fcntl.h>
#include <poll.h>

#include <cerrno>

namespace kvox::sim {

bool FifoWriter::HasReader() {
  if (fd_.valid()) {
    pollfd pipe{.fd = fd_.get(), .events = 0, .revents = 0};
    if (poll(&pipe, 1, 0) > 0) hung_up_ = true;
    return !hung_up_;
  }
  if (disabled_) return false;
  fd_ = UniqueFd(open(path_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW));
  if (fd_.valid()) fcntl(fd_.get(), F_SETPIPE_SZ, kPipeSize);
  return fd_.valid();
}

FifoWriter::Result FifoWriter::Offer(std::span<const std::byte> packet) {
  if (const Result result = Flush(); result != Result::kSent) return result;
  rest_.assign(packet.begin(), packet.end());
  const Result result = Flush();
  if (result != Result::kDropped) return result;
  if (rest_.size() < packet.size()) return Result::kSent;
  rest_.clear();
  return Result::kDropped;
}

FifoWriter::Result FifoWriter::Flush() {
  if (rest_.empty()) return Result::kSent;
  const ssize_t written = write(fd_.get(), rest_.data(), rest_.size());
  if (written > 0) rest_.erase(rest_.begin(), rest_.begin() + written);
  if (written < 0 && errno != EAGAIN && errno != EINTR) {
    hung_up_ = true;
    return Result::kNoReader;
  }
  return rest_.empty() ? Result::kSent : Result::kDropped;
}

void FifoWriter::Close() {
  fd_ = {};
  hung_up_ = false;
  rest_.clear();
}

}  // namespace kvox::sim
