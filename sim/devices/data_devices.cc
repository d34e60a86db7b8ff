#include "sim/devices/data_devices.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <span>
#include <stdexcept>

#include "kvox/common/kvox_utils.h"

namespace kvox::sim {

TapOutDevice::TapOutDevice(event_base* base, uint8_t id, const std::filesystem::path& path,
                           const StreamOptions& options, FaultPlan& plan, Journal& journal)
    : base_(base),
      id_(id),
      options_(options),
      plan_(plan),
      journal_(journal),
      writer_(path),
      due_(base, -1, 0, [this] { Run(); }) {}

void TapOutDevice::Attach(Tap* tap) {
  if (tap == (stream_ ? &stream_->tap() : nullptr)) return;
  stream_.reset();
  due_.Remove();
  if (tap == nullptr) return;
  stream_.emplace(*tap, id_, writer_, options_, plan_, journal_, GetTimestampNs());
  Run();
}

void TapOutDevice::Run() {
  if (stream_) {
    const uint64_t now = GetTimestampNs();
    const uint64_t next = stream_->Run(now);
    due_.AddIn(next > now ? next - now : 0);
  }
  Watch();
}

/// The pipe takes bytes again, or its reader is gone. A hang-up is handled in Run(), which does
/// not run inside of the events that are deleted with the pipe.
void TapOutDevice::OnPipe() {
  if (writer_.HasReader() && writer_.Flush() != PacketPort::Result::kNoReader) return Watch();
  hang_up_->Remove();
  due_.AddIn(0);
}

/// Keeps the loop's events in step with what the writer did.
void TapOutDevice::Watch() {
  if (writer_.hung_up()) Close();
  if (writer_.fd() < 0) return;
  if (hang_up_ == nullptr) {
    // A write-only descriptor becomes readable only when its reader is gone.
    hang_up_ =
        std::make_unique<Event>(base_, writer_.fd(), EV_READ | EV_PERSIST, [this] { OnPipe(); });
    writable_ = std::make_unique<Event>(base_, writer_.fd(), EV_WRITE, [this] { OnPipe(); });
    hang_up_->Add();
  }
  if (writer_.has_rest()) writable_->Add();
}

void TapOutDevice::Close() {
  hang_up_.reset();
  writable_.reset();
  writer_.Close();
}

void TapOutDevice::SetDisabled(bool disabled) {
  if (disabled == writer_.disabled()) return;
  writer_.SetDisabled(disabled);
  if (disabled) Close();
  Run();  // which ends a stream that has no reader now
}

void InjectDevice::Open() {
  if (fd_.valid()) return;
  // Both ways, so that a writer finds a reader and the reader no end of file.
  fd_ = UniqueFd(open(path_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW));
  if (!fd_.valid()) {
    throw std::runtime_error(
        fmt::format("{}: cannot be opened ({}); is another program at work there?", path_.string(),
                    std::strerror(errno)));
  }
  fcntl(fd_.get(), F_SETPIPE_SZ, kPipeSize);
  readable_ = std::make_unique<Event>(base_, fd_.get(), EV_READ | EV_PERSIST, [this] { Read(); });
  SetStalled(stalled_);
}

void InjectDevice::Close() {
  Read();
  reassembler_.DropPartial();
  readable_.reset();
  fd_ = {};
}

void InjectDevice::SetStalled(bool stalled) {
  stalled_ = stalled;
  if (readable_ == nullptr) return;
  if (stalled) {
    readable_->Remove();
  } else {
    readable_->Add();
  }
}

void InjectDevice::Read() {
  if (!fd_.valid() || stalled_) return;
  bytes_.resize(kPipeSize);
  const ssize_t size = read(fd_.get(), bytes_.data(), bytes_.size());
  if (size > 0) reassembler_.Feed(std::span(bytes_).first(static_cast<size_t>(size)));
}

}  // namespace kvox::sim
