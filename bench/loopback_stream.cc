#include "bench/loopback_stream.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>

#include "kvox/common/kvox_utils.h"

namespace kvox::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kNoiseShift = 8;     // bytes by which a packet's payload differs from the last
constexpr uint32_t kNoiseShifts = 509;  // prime
constexpr int kPipeSize = 256 * 1024;   // several of the largest packets
constexpr int kTimeoutMs = 1000;
constexpr uint64_t kMostLost = 10;

std::vector<std::byte> MakeNoise(unsigned seed, size_t size) {
  std::mt19937 random(seed);
  std::vector<std::byte> noise(size);
  std::generate(noise.begin(), noise.end(), [&] { return static_cast<std::byte>(random()); });
  return noise;
}

UniqueFd OpenFifo(const std::filesystem::path& path) {
  // For reading and writing: neither end waits for the other, and neither sees a hang-up.
  const bool made = mkfifo(path.c_str(), 0600) == 0 || errno == EEXIST;
  UniqueFd fd(made ? open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC) : -1);
  if (fd.get() < 0) {
    throw std::runtime_error("cannot make " + path.string() + ": " + std::strerror(errno));
  }
  fcntl(fd.get(), F_SETPIPE_SZ, kPipeSize);
  return fd;
}

/// Takes what comes back until `due`.
void ReceiveUntil(const LoopbackStreams& streams, std::vector<pollfd>& fds, Clock::time_point due) {
  for (;;) {
    const auto left = std::chrono::nanoseconds(due - Clock::now());
    const timespec timeout{.tv_sec = 0, .tv_nsec = std::max<int64_t>(left.count(), 0)};
    const int ready = ppoll(fds.data(), fds.size(), &timeout, nullptr);
    for (size_t i = 0; ready > 0 && i < streams.size(); ++i) {
      if (fds[i].revents != 0) streams[i]->Receive();
    }
    if (left.count() <= 0) return;
  }
}

}  // namespace

LoopbackStream::LoopbackStream(const std::filesystem::path& devices, unsigned stream,
                               uint32_t payload_size)
    : payload_size_(payload_size),
      out_(OpenFifo(devices / ("xdv-kvox_tapout" + std::to_string(stream)))),
      back_(OpenFifo(devices / ("xdv-kvox_inject" + std::to_string(stream)))),
      noise_(MakeNoise(stream + 1, payload_size + kNoiseShift * kNoiseShifts)),
      outgoing_(kPacketHeaderSize + payload_size),
      incoming_(kPacketHeaderSize + payload_size) {}

const std::byte* LoopbackStream::PayloadOf(uint32_t number) const {
  return noise_.data() + kNoiseShift * (number % kNoiseShifts);
}

KvoxPacketHeader LoopbackStream::HeaderOf(uint32_t number) const {
  KvoxPacketHeader header;
  header.stamp = stamps_[number % kRemembered];
  header.packet_num = number;
  header.payload_size = payload_size_;
  header.format = {.sample_rate = 0, .channels = 1, .bytes_per_sample = 2};
  return header;
}

void LoopbackStream::Send() {
  const uint32_t number = ++sent_number_;
  std::memcpy(outgoing_.data() + kPacketHeaderSize, PayloadOf(number), payload_size_);
  stamps_[number % kRemembered] = GetTimestampNs();
  const KvoxPacketHeader header = HeaderOf(number);
  std::memcpy(outgoing_.data(), &header, sizeof header);
  ++counters_.sent;
  size_t done = 0;
  while (done < outgoing_.size()) {
    const ssize_t written = write(out_.get(), outgoing_.data() + done, outgoing_.size() - done);
    if (written > 0) {
      done += static_cast<size_t>(written);
      continue;
    }
    pollfd device{.fd = out_.get(), .events = POLLOUT, .revents = 0};
    if (poll(&device, 1, kTimeoutMs) == 0) {
      throw std::runtime_error(
          "nobody reads the packets of a stream; the program under measurement has stopped");
    }
  }
}

void LoopbackStream::Receive() {
  while (in_flight() > 0) {
    const ssize_t size =
        read(back_.get(), incoming_.data() + incoming_size_, incoming_.size() - incoming_size_);
    if (size <= 0) return;
    incoming_size_ += static_cast<size_t>(size);
    if (incoming_size_ < incoming_.size()) continue;
    Check(GetTimestampNs());
    incoming_size_ = 0;
  }
}

void LoopbackStream::Check(uint64_t now_ns) {
  KvoxPacketHeader header;
  std::memcpy(&header, incoming_.data(), sizeof header);
  const uint32_t ahead = header.packet_num - received_number_;
  if (ahead == 0 || ahead > in_flight()) {
    ++counters_.wrong;
    return;
  }
  counters_.lost += ahead - 1;
  received_number_ = header.packet_num;
  const KvoxPacketHeader expected = HeaderOf(received_number_);
  const bool exact = std::memcmp(&header, &expected, sizeof header) == 0 &&
                     std::memcmp(incoming_.data() + kPacketHeaderSize, PayloadOf(received_number_),
                                 payload_size_) == 0;
  if (!exact) ++counters_.wrong;
  round_trips_ns_.push_back(static_cast<uint32_t>(now_ns - expected.stamp));
}

void LoopbackStream::Drain(int timeout_ms) {
  const uint64_t deadline = GetTimestampNs() + static_cast<uint64_t>(timeout_ms) * 1'000'000;
  while (in_flight() > 0) {
    const uint64_t now = GetTimestampNs();
    if (now >= deadline) break;
    pollfd device{.fd = back_.get(), .events = POLLIN, .revents = 0};
    poll(&device, 1, static_cast<int>((deadline - now) / 1'000'000) + 1);
    Receive();
  }
  counters_.lost += in_flight();
  received_number_ = sent_number_;
  if (counters_.lost < kMostLost) return;
  throw std::runtime_error(
      "packets of a stream do not come back; the program under measurement "
      "has stopped or drops them");
}

std::vector<uint32_t> LoopbackStream::TakeRoundTripsNs() {
  return std::exchange(round_trips_ns_, {});
}

LoopbackStreams MakeStreams(const std::filesystem::path& devices, unsigned count,
                            uint32_t payload_size) {
  LoopbackStreams streams;
  for (unsigned i = 0; i < count; ++i) {
    streams.push_back(std::make_unique<LoopbackStream>(devices, i, payload_size));
  }
  return streams;
}

StreamCounters Sum(const LoopbackStreams& streams) {
  StreamCounters sum;
  for (const auto& stream : streams) {
    sum.sent += stream->counters().sent;
    sum.lost += stream->counters().lost;
    sum.wrong += stream->counters().wrong;
  }
  return sum;
}

void PlayPingPong(const LoopbackStreams& streams, unsigned packets) {
  for (unsigned i = 0; i < packets; ++i) {
    for (const auto& stream : streams) {
      stream->Send();
      stream->Drain(kTimeoutMs);
    }
  }
}

void PlayPaced(const LoopbackStreams& streams, unsigned periods, std::chrono::nanoseconds period) {
  std::vector<pollfd> fds;
  for (const auto& stream : streams) {
    fds.push_back({.fd = stream->fd(), .events = POLLIN, .revents = 0});
  }
  const auto step = period / streams.size();
  auto due = Clock::now();
  for (unsigned i = 0; i < periods; ++i) {
    for (const auto& stream : streams) {
      stream->Send();
      due += step;
      ReceiveUntil(streams, fds, due);
    }
  }
  for (const auto& stream : streams) stream->Drain(kTimeoutMs);
}

}  // namespace kvox::bench
