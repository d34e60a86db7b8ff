#include "buffer/tap_device.h"

#include <cerrno>
#include <chrono>

#include "kvox/common/fixed_text.h"
#include "kvox/common/log.h"

namespace kvox {
namespace {

constexpr int kWaitMs = 200;
constexpr uint32_t kWaitsPerLine = 20;
constexpr uint32_t kErrorsBeforeReopening = 10;
constexpr int kReopenings = 5;
constexpr int kReopenPauseMs = 500;
constexpr uint64_t kNsPerMs = 1'000'000;

}  // namespace

TapDevice::TapDevice(const TapDeviceLinks& links, int fd)
    : links_(links), name_(links.name.c_str()) {
  SetHandle(fd);
}

TapDevice::~TapDevice() {
  SetHandle(-1);
}

/// Closes what was open before.
void TapDevice::SetHandle(int fd) {
  if (watch_ >= 0) links_.io.Close(watch_);
  if (handle_ >= 0) links_.io.Close(handle_);
  handle_ = fd;
  watch_ = fd >= 0 ? links_.io.Watch(fd, links_.wake.fd()) : -1;
}

void TapDevice::RequestStop() {
  stopping_.store(true, std::memory_order_relaxed);
  links_.wake.Signal();
}

void TapDevice::StartOver() {
  waits_ = 0;
  read_errors_ = 0;
}

TapDevice::Outcome TapDevice::Read(std::span<std::byte> area, size_t& size) {
  while (!stopping() && handle_ >= 0) {
    if (links_.calls.wanted()) OnWake();
    switch (WaitForInput()) {
      case DeviceIo::Ready::kDevice:
        break;
      case DeviceIo::Ready::kWoken:
        OnWake();
        continue;
      case DeviceIo::Ready::kTimeout:
        if (waits_++ % kWaitsPerLine == 0) LogInfo("%s waiting for KVO RX\n", name_);
        continue;
      case DeviceIo::Ready::kFailed:
        LogError("%s select failed\n", name_);
        return Outcome::kEnd;
    }
    const ssize_t count = links_.io.Read(handle_, area);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) {  // ready, but for nothing
      if (++wakes_in_vain_ > 1) Pause();
      continue;
    }
    wakes_in_vain_ = 0;
    if (count < 0) return HandleError(errno, area.size());
    if (count > 0) {
      size = static_cast<size_t>(count);
      return Outcome::kBytes;
    }
    Pause();  // the device has hung up: poll would return at once again
  }
  return Outcome::kEnd;
}

DeviceIo::Ready TapDevice::WaitForInput() {
  if (watch_ >= 0) return links_.io.WaitWatched(watch_, kWaitMs);
  return links_.io.Wait(handle_, DeviceIo::Direction::kRead, links_.wake.fd(),
                        std::chrono::milliseconds(kWaitMs));
}

TapDevice::Outcome TapDevice::HandleError(int error, size_t requested) {
  if (stopping()) return Outcome::kEnd;
  if (read_errors_ == kErrorsBeforeReopening) return Reopen();
  LogError("%s KVO read status %d (errno %d: %s), trying again, handle_ %d, read_sz %u", name_, -1,
           error, ErrorText(error).c_str(), handle_, static_cast<unsigned>(requested));
  ++read_errors_;
  Pause();
  return Outcome::kError;
}

TapDevice::Outcome TapDevice::Reopen() {
  for (int attempt = 0; attempt < kReopenings; ++attempt) {
    LogInfo("%s Attempting to reinitialize KVO interface", name_);
    Pause(kReopenPauseMs);
    if (stopping()) return Outcome::kEnd;
    SetHandle(-1);
    const int fd = links_.io.Open(links_.path.c_str(), DeviceIo::Direction::kRead);
    const int error = errno;
    SetHandle(fd);
    if (handle_ >= 0) {
      LogInfo("%s Re-init success", name_);
      return Outcome::kReopened;
    }
    LogError("Error opening %s, status %d (errno %d: %s)\n", links_.path.c_str(), handle_, error,
             ErrorText(error).c_str());
  }
  LogError("%s KVO interface error, status %d\n", name_, handle_);
  return Outcome::kEnd;
}

void TapDevice::Pause(int ms) {
  const uint64_t until = NowNs() + static_cast<uint64_t>(ms) * kNsPerMs;
  while (!stopping()) {
    const uint64_t now = NowNs();
    if (now >= until) return;
    const DeviceIo::Ready ready = links_.io.Wait(-1, DeviceIo::Direction::kRead, links_.wake.fd(),
                                                 std::chrono::nanoseconds(until - now));
    if (ready == DeviceIo::Ready::kWoken) OnWake();
    if (ready == DeviceIo::Ready::kFailed) return;
  }
}

void TapDevice::OnWake() {
  links_.wake.Clear();
  if (links_.calls.wanted()) links_.calls.Serve();
}

bool TapDevice::WaitWritable(int fd, uint64_t deadline_ns) {
  return WaitFor(fd, DeviceIo::Direction::kWrite, deadline_ns);
}

bool TapDevice::WaitReadable(int fd, uint64_t deadline_ns) {
  return WaitFor(fd, DeviceIo::Direction::kRead, deadline_ns);
}

bool TapDevice::WaitFor(int fd, DeviceIo::Direction direction, uint64_t deadline_ns) {
  while (!stopping() && !links_.routes.Superseded()) {
    const uint64_t now = NowNs();
    if (now >= deadline_ns) return false;
    const DeviceIo::Ready ready = links_.io.Wait(fd, direction, links_.wake.fd(),
                                                 std::chrono::nanoseconds(deadline_ns - now));
    if (ready == DeviceIo::Ready::kDevice) return !stopping() && !links_.routes.Superseded();
    if (ready == DeviceIo::Ready::kFailed) return false;
    if (ready == DeviceIo::Ready::kWoken) links_.wake.Clear();  // a waiting call stays wanted
  }
  return false;
}

}  // namespace kvox
