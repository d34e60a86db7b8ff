#include "buffer/inject_port.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "buffer/timing_judge.h"

namespace kvox {
namespace {

constexpr uint64_t kUntimedStallMs = 100;
constexpr uint64_t kMaxStallMs = 1000;

/// A wait for a stalled device is no longer than a packet.
uint64_t StallNs(const KvoxPacketHeader& header) {
  const KvoxTapFormat& format = header.format;
  uint64_t ms = kUntimedStallMs;
  if (IsTimed(format, header.payload_size)) {
    ms = uint64_t{FrameCount(format, header.payload_size)} * 1000 / format.sample_rate;
  }
  return std::min(ms, kMaxStallMs) * 1'000'000;
}

}  // namespace

InjectPort::InjectPort(std::string name, std::string device_path, DeviceIo& io,
                       PacketRecorder& recorder, int fd)
    : name_(std::move(name)),
      device_path_(std::move(device_path)),
      io_(io),
      recorder_(recorder),
      fd_(fd),
      area_(std::make_unique<std::byte[]>(kPacketMaxSize)) {}

InjectPort::~InjectPort() {
  if (fd_ >= 0) io_.Close(fd_);
}

std::span<std::byte> InjectPort::PayloadArea(uint32_t size) {
  return {area_.get() + kPacketHeaderSize, std::min(size, kPacketMaxPayload)};
}

int32_t InjectPort::SendBuilt(const KvoxPacketHeader& header, IoWaiter& waiter) {
  if (header.payload_size > kPacketMaxPayload) return kPortPayloadTooLarge;
  sent_in_place_ = false;
  std::memcpy(area_.get(), &header, sizeof header);
  return Send(header, {area_.get(), kPacketHeaderSize + header.payload_size}, waiter);
}

int32_t InjectPort::SendInPlace(const KvoxPacketHeader& header, std::byte* packet,
                                IoWaiter& waiter) {
  if (header.payload_size > kPacketMaxPayload) return kPortPayloadTooLarge;
  in_place_header_ = header;
  sent_in_place_ = true;
  KvoxPacketHeader received;
  std::memcpy(&received, packet, sizeof received);
  std::memcpy(packet, &header, sizeof header);
  const int32_t status = Send(header, {packet, kPacketHeaderSize + header.payload_size}, waiter);
  std::memcpy(packet, &received, sizeof received);
  return status;
}

void InjectPort::KeepSentPacket(const std::byte* payload) {
  if (!sent_in_place_ || payload == nullptr) return;
  std::memcpy(area_.get(), &in_place_header_, sizeof in_place_header_);
  std::memcpy(area_.get() + kPacketHeaderSize, payload, in_place_header_.payload_size);
  sent_in_place_ = false;
}

bool InjectPort::CopyTo(std::vector<std::byte>& copy) const {
  copy.assign(area_.get(), area_.get() + kPacketMaxSize);
  return !sent_in_place_;
}

int32_t InjectPort::Send(const KvoxPacketHeader& header, std::span<const std::byte> packet,
                         IoWaiter& waiter) {
  if (fd_ < 0) Reopen();
  if (fd_ < 0) return kPortClosed;
  recorder_.Record(header, packet.subspan(kPacketHeaderSize));
  std::span<const std::byte> rest = packet;
  uint64_t deadline_ns = 0;
  for (;;) {
    const ssize_t written = io_.Write(fd_, rest);
    if (written < 0 && errno != EAGAIN) break;
    if (written > 0) rest = rest.subspan(static_cast<size_t>(written));
    if (rest.empty()) return kPortOk;
    if (deadline_ns == 0) deadline_ns = io_.NowNs() + StallNs(header);
    if (!waiter.WaitWritable(fd_, deadline_ns)) break;
  }
  // A partial packet would misalign all that follow: reopen the device.
  if (rest.size() < packet.size()) Reopen();
  return kPortWriteFailed;
}

void InjectPort::Reopen() {
  if (fd_ >= 0) io_.Close(fd_);
  fd_ = io_.Open(device_path_.c_str(), DeviceIo::Direction::kWrite);
}

}  // namespace kvox
