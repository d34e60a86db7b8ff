#include "buffer/inject_port.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "buffer/timing_judge.h"

namespace kvox {
namespace {

constexpr uint64_t kUntimedPatienceNs = 5'000'000;
constexpr uint64_t kMaxPatienceNs = 250'000'000;
constexpr int kMostTriesInVain = 4;
constexpr uint64_t kNsPerSecond = 1'000'000'000;

uint64_t PatienceNs(const KvoxPacketHeader& header) {
  const KvoxTapFormat& format = header.format;
  if (!IsTimed(format, header.payload_size)) return kUntimedPatienceNs;
  const uint64_t frames = FrameCount(format, header.payload_size);
  return std::min(frames * kNsPerSecond / format.sample_rate / 4, kMaxPatienceNs);
}

}  // namespace

bool SendPatience::WaitWritable(int fd) {
  const uint64_t now_ns = waiter_.NowNs();
  if (!begun_) left_ns_ = PatienceNs(header_);
  begun_ = true;
  if (left_ns_ == 0) return false;
  const uint64_t deadline_ns = now_ns + left_ns_;
  const bool writable = waiter_.WaitWritable(fd, deadline_ns);
  left_ns_ = deadline_ns - std::min(waiter_.NowNs(), deadline_ns);
  return writable;
}

InjectPort::InjectPort(std::string name, std::string device_path, DeviceIo& io,
                       PacketRecorder& recorder, int fd, flight::InjectLog log)
    : name_(std::move(name)),
      device_path_(std::move(device_path)),
      io_(io),
      recorder_(recorder),
      fd_(fd),
      log_(log),
      area_(std::make_unique<std::byte[]>(kPacketMaxSize)) {}

InjectPort::~InjectPort() {
  if (fd_ >= 0) io_.Close(fd_);
}

std::span<std::byte> InjectPort::PayloadArea(uint32_t size) {
  return {area_.get() + kPacketHeaderSize, std::min(size, kPacketMaxPayload)};
}

int32_t InjectPort::SendBuilt(const KvoxPacketHeader& header, SendPatience& patience) {
  if (header.payload_size > kPacketMaxPayload) return kPortPayloadTooLarge;
  last_sent_ = LastSent::kGone;
  std::memcpy(area_.get(), &header, sizeof header);
  const int32_t status =
      Send(header, {area_.get(), kPacketHeaderSize + header.payload_size}, patience);
  if (status == kPortOk) last_sent_ = LastSent::kInWorkArea;
  return status;
}

int32_t InjectPort::SendInPlace(const KvoxPacketHeader& header, std::byte* packet,
                                SendPatience& patience) {
  if (header.payload_size > kPacketMaxPayload) return kPortPayloadTooLarge;
  KvoxPacketHeader received;
  std::memcpy(&received, packet, sizeof received);
  std::memcpy(packet, &header, sizeof header);
  const int32_t status = Send(header, {packet, kPacketHeaderSize + header.payload_size}, patience);
  std::memcpy(packet, &received, sizeof received);
  if (status == kPortOk) {
    in_place_header_ = header;
    in_place_payload_ = packet + kPacketHeaderSize;
    last_sent_ = LastSent::kInPlace;
  }
  return status;
}

void InjectPort::KeepSentPacket(const std::byte* payload) {
  if (last_sent_ != LastSent::kInPlace || payload == nullptr || payload != in_place_payload_) {
    return;
  }
  // Another packet may be there by now, which was not sent through this port.
  KvoxPacketHeader present;
  std::memcpy(&present, payload - kPacketHeaderSize, sizeof present);
  if (present.stamp != in_place_header_.stamp ||
      present.packet_num != in_place_header_.packet_num ||
      present.payload_size != in_place_header_.payload_size) {
    return;
  }
  std::memcpy(area_.get(), &in_place_header_, sizeof in_place_header_);
  std::memcpy(area_.get() + kPacketHeaderSize, payload, in_place_header_.payload_size);
  last_sent_ = LastSent::kInWorkArea;
}

bool InjectPort::CopyTo(std::vector<std::byte>& copy) const {
  copy.assign(kPacketMaxSize, std::byte{});
  if (last_sent_ != LastSent::kInWorkArea) return last_sent_ == LastSent::kNothing;
  KvoxPacketHeader sent;
  std::memcpy(&sent, area_.get(), sizeof sent);
  std::copy_n(area_.get(), kPacketHeaderSize + sent.payload_size, copy.begin());
  return true;
}

int32_t InjectPort::Send(const KvoxPacketHeader& header, std::span<const std::byte> packet,
                         SendPatience& patience) {
  const int32_t status = Offer(header, packet, patience);
  log_.Count(outcome_);
  return status;
}

int32_t InjectPort::Offer(const KvoxPacketHeader& header, std::span<const std::byte> packet,
                          SendPatience& patience) {
  outcome_ = flight::Written::kGone;
  if (fd_ < 0) Reopen();
  if (fd_ < 0) return kPortClosed;
  recorder_.Record(header, packet.subspan(kPacketHeaderSize));
  const bool whole_patience = patience.untouched();
  const std::span<const std::byte> rest = Write(packet, patience);
  if (rest.empty()) {
    stalled_ = false;
    return kPortOk;
  }
  if (rest.size() < packet.size()) {
    // A partial packet would misalign all that follow: reopen the device.
    Reopen();
  } else if (whole_patience && patience.used_up()) {
    stalled_ = true;
  }
  return kPortWriteFailed;
}

/// Returns what the device did not take.
std::span<const std::byte> InjectPort::Write(std::span<const std::byte> packet,
                                             SendPatience& patience) {
  std::span<const std::byte> rest = packet;
  for (int tries_in_vain = 0;;) {
    const ssize_t written = io_.Write(fd_, rest);
    if (written < 0 && errno != EAGAIN && errno != EINTR) {
      outcome_ = flight::Written::kGone;
      return rest;
    }
    if (written > 0) rest = rest.subspan(static_cast<size_t>(written));
    outcome_ = rest.empty() ? flight::Written::kWhole : flight::Written::kFull;
    if (rest.empty() || stalled_) return rest;
    // A device that always says that it can be written, and takes nothing, would keep us busy.
    if (written <= 0 && ++tries_in_vain > kMostTriesInVain) return rest;
    if (!patience.WaitWritable(fd_)) return rest;
  }
}

void InjectPort::Reopen() {
  if (fd_ >= 0) io_.Close(fd_);
  fd_ = io_.Open(device_path_.c_str(), DeviceIo::Direction::kWrite);
}

}  // namespace kvox
