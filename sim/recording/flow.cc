#include "sim/recording/flow.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

#include "kvox/common/kvox_packet.h"

namespace kvox::sim {
namespace {

constexpr uint64_t kPauseNs = 1'000'000;

bool IsPassing(int error) {
  return error == EAGAIN || error == EINTR;
}

}  // namespace

Flow::Flow(event_base* base, int from, int to, Callbacks callbacks)
    : from_(from),
      to_(to),
      callbacks_(std::move(callbacks)),
      buffer_(kPacketMaxSize),
      readable_(base, from, EV_READ | EV_PERSIST, [this] { Read(); }),
      writable_(base, to, EV_WRITE, [this] { Write(); }),
      again_(base, -1, 0, [this] { Resume(); }) {
  again_.AddIn(0);
}

/// Some drivers' devices cannot be waited for.
void Flow::Resume() {
  if (!rest_.empty()) return Write();
  pollable_ = readable_.Add();
  if (!pollable_) Read();
}

/// A device that is ready in vain shall not keep a processor busy.
void Flow::Pause() {
  readable_.Remove();
  again_.AddIn(kPauseNs);
}

void Flow::Read() {
  const ssize_t size = read(from_, buffer_.data(), buffer_.size());
  if (size < 0 && IsPassing(errno)) return Pause();
  if (size <= 0) return End(size < 0 ? errno : 0);
  const auto bytes = std::span(buffer_).first(static_cast<size_t>(size));
  const bool passed = Pass(bytes);
  const int error = errno;
  callbacks_.on_bytes(bytes);
  if (!passed) return End(error);
  if (rest_.empty()) {
    if (!pollable_) again_.AddIn(kPauseNs);
    return;
  }
  readable_.Remove();
  if (!writable_.Add()) again_.AddIn(kPauseNs);
}

void Flow::Write() {
  const std::vector<std::byte> bytes = std::exchange(rest_, {});
  if (!Pass(bytes)) return End(errno);
  if (rest_.empty()) return Resume();
  const bool in_vain = rest_.size() == bytes.size();
  if (in_vain || !writable_.Add()) again_.AddIn(kPauseNs);
}

void Flow::End(int error) {
  for (Event* const event : {&readable_, &writable_, &again_}) event->Remove();
  callbacks_.on_end(error);
}

/// False with errno. What there is no room for becomes the rest.
bool Flow::Pass(std::span<const std::byte> bytes) {
  const ssize_t written = write(to_, bytes.data(), bytes.size());
  if (written < 0 && !IsPassing(errno)) return false;
  const auto left = bytes.subspan(written > 0 ? static_cast<size_t>(written) : 0);
  rest_.assign(left.begin(), left.end());
  return true;
}

}  // namespace kvox::sim
