#include "bench/lane.h"

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

constexpr uint32_t kNoiseShift = 8;     // bytes by which a packet's payload differs from the last
constexpr uint32_t kNoiseShifts = 509;  // prime
constexpr int kPipeSize = 256 * 1024;   // several of the largest packets
constexpr int kSendPatienceMs = 1000;
constexpr uint64_t kHopeless = 10;  // losses after which waiting for more is of no use

std::vector<std::byte> MakeNoise(unsigned seed, size_t size) {
  std::mt19937 random(seed);
  std::vector<std::byte> noise(size);
  std::generate(noise.begin(), noise.end(), [&] { return static_cast<std::byte>(random()); });
  return noise;
}

int OpenFifo(const std::filesystem::path& path) {
  // Both ways: neither end waits for the other, and nobody sees a hang-up.
  if (mkfifo(path.c_str(), 0600) != 0 && errno != EEXIST) {
    throw std::runtime_error("cannot make " + path.string() + ": " + std::strerror(errno));
  }
  const int fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    throw std::runtime_error("cannot open " + path.string() + ": " + std::strerror(errno));
  }
  fcntl(fd, F_SETPIPE_SZ, kPipeSize);
  return fd;
}

}  // namespace

Lane::Lane(const std::filesystem::path& devices, unsigned stream, uint32_t payload_size)
    : payload_size_(payload_size),
      noise_(MakeNoise(stream + 1, payload_size + kNoiseShift * kNoiseShifts)),
      outgoing_(kPacketHeaderSize + payload_size),
      incoming_(kPacketHeaderSize + payload_size) {
  out_ = OpenFifo(devices / ("xdv-kvox_tapout" + std::to_string(stream)));
  back_ = OpenFifo(devices / ("xdv-kvox_inject" + std::to_string(stream)));
}

Lane::~Lane() {
  close(out_);
  close(back_);
}

const std::byte* Lane::PayloadOf(uint32_t number) const {
  return noise_.data() + kNoiseShift * (number % kNoiseShifts);
}

KvoxPacketHeader Lane::HeaderOf(uint32_t number) const {
  KvoxPacketHeader header;
  header.stamp = stamps_[number % kRemembered];
  header.packet_num = number;
  header.payload_size = payload_size_;
  header.format = {.sample_rate = 0, .channels = 1, .bytes_per_sample = 2};
  return header;
}

void Lane::Send() {
  const uint32_t number = ++sent_number_;
  std::memcpy(outgoing_.data() + kPacketHeaderSize, PayloadOf(number), payload_size_);
  stamps_[number % kRemembered] = GetTimestampNs();
  const KvoxPacketHeader header = HeaderOf(number);
  std::memcpy(outgoing_.data(), &header, sizeof header);
  ++counters_.sent;
  size_t done = 0;
  while (done < outgoing_.size()) {
    const ssize_t written = write(out_, outgoing_.data() + done, outgoing_.size() - done);
    if (written > 0) {
      done += static_cast<size_t>(written);
      continue;
    }
    pollfd device{.fd = out_, .events = POLLOUT, .revents = 0};
    if (poll(&device, 1, kSendPatienceMs) == 0) {
      throw std::runtime_error(
          "nobody reads the packets of a stream; the program under "
          "measurement has stopped");
    }
  }
}

void Lane::Receive() {
  while (under_way() > 0) {
    const ssize_t size =
        read(back_, incoming_.data() + incoming_size_, incoming_.size() - incoming_size_);
    if (size <= 0) return;
    incoming_size_ += static_cast<size_t>(size);
    if (incoming_size_ < incoming_.size()) continue;
    Check(GetTimestampNs());
    incoming_size_ = 0;
  }
}

void Lane::Check(uint64_t now_ns) {
  KvoxPacketHeader header;
  std::memcpy(&header, incoming_.data(), sizeof header);
  const uint32_t ahead = header.packet_num - received_number_;
  if (ahead == 0 || ahead > under_way()) {
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

void Lane::Drain(int timeout_ms) {
  const uint64_t deadline = GetTimestampNs() + static_cast<uint64_t>(timeout_ms) * 1'000'000;
  while (under_way() > 0) {
    const uint64_t now = GetTimestampNs();
    if (now >= deadline) break;
    pollfd device{.fd = back_, .events = POLLIN, .revents = 0};
    poll(&device, 1, static_cast<int>((deadline - now) / 1'000'000) + 1);
    Receive();
  }
  counters_.lost += under_way();
  received_number_ = sent_number_;
  if (counters_.lost < kHopeless) return;
  throw std::runtime_error(
      "packets of a stream do not come back; the program under measurement "
      "has stopped or drops them");
}

std::vector<uint32_t> Lane::TakeRoundTripsNs() {
  return std::exchange(round_trips_ns_, {});
}

}  // namespace kvox::bench
