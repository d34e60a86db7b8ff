#include "sim/data_devices.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "kvox/common/kvox_utils.h"

namespace kvox::sim {

TapOutDevice::TapOutDevice(event_base* base, uint8_t id, const std::filesystem::path& path,
                           double speed, Journal& journal)
    : base_(base),
      id_(id),
      speed_(speed),
      journal_(journal),
      writer_(path),
      due_(base, -1, 0, [this] { Run(); }) {}

void TapOutDevice::Attach(Tap* tap) {
  if (tap == (stream_ ? &stream_->tap() : nullptr)) return;
  stream_.reset();
  due_.Remove();
  if (tap == nullptr) return;
  stream_.emplace(*tap, id_, writer_, speed_, journal_, GetTimestampNs());
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

/// The pipe takes bytes again, or its reader has gone. A hang-up is dealt with in Run(), which does
/// not run inside of the events that end with the pipe.
void TapOutDevice::OnPipe() {
  if (writer_.HasReader() && writer_.Flush() != PacketPort::Result::kNoReader) return Watch();
  hang_up_->Remove();
  due_.AddIn(0);
}

/// Keeps the loop's watch on the pipe in step with what the writer did.
void TapOutDevice::Watch() {
  if (writer_.hung_up()) {
    hang_up_.reset();
    writable_.reset();
    writer_.Close();
  }
  if (writer_.fd() < 0) return;
  if (hang_up_ == nullptr) {
    // A write-only descriptor becomes readable only by the error that its reader has gone.
    hang_up_ =
        std::make_unique<Event>(base_, writer_.fd(), EV_READ | EV_PERSIST, [this] { OnPipe(); });
    writable_ = std::make_unique<Event>(base_, writer_.fd(), EV_WRITE, [this] { OnPipe(); });
    hang_up_->Add();
  }
  if (writer_.has_rest()) writable_->Add();
}

std::unique_ptr<InjectDevice> InjectDevice::Open(event_base* base, uint8_t id,
                                                 const std::filesystem::path& path, Taker taker,
                                                 std::string& error) {
  // Both ways, so that a writer finds a reader and the reader no end of file.
  const int fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) {
    error = fmt::format("{}: cannot be opened ({}); is another program at work there?",
                        path.string(), std::strerror(errno));
    return nullptr;
  }
  fcntl(fd, F_SETPIPE_SZ, kPipeSize);
  return std::unique_ptr<InjectDevice>(new InjectDevice(base, id, fd, std::move(taker)));
}

InjectDevice::InjectDevice(event_base* base, uint8_t id, int fd, Taker taker)
    : id_(id),
      fd_(fd),
      reassembler_(std::move(taker)),
      readable_(base, fd, EV_READ | EV_PERSIST, [this] { Read(); }) {
  readable_.Add();
}

InjectDevice::~InjectDevice() {
  readable_.Remove();
  close(fd_);
}

void InjectDevice::Read() {
  bytes_.resize(kPipeSize);
  const ssize_t size = read(fd_, bytes_.data(), bytes_.size());
  if (size > 0) reassembler_.Feed(std::span(bytes_).first(static_cast<size_t>(size)));
}

}  // namespace kvox::sim
