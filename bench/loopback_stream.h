// The co-processor's side of streams: sends numbered packets into tap-out FIFOs, takes them back
// from inject FIFOs and checks every byte of them. One thread at a time.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <vector>

#include "kvox/common/kvox_packet.h"
#include "kvox/common/unique_fd.h"

namespace kvox::bench {

struct StreamCounters {
  uint64_t sent = 0;
  uint64_t lost = 0;   // did not come back
  uint64_t wrong = 0;  // came back with another header or another payload

  uint64_t faults() const { return lost + wrong; }
};

class LoopbackStream {
 public:
  /// Makes the two FIFOs of stream `stream` in `devices` and opens both. Throws std::runtime_error.
  LoopbackStream(const std::filesystem::path& devices, unsigned stream, uint32_t payload_size);

  /// Sends the next packet. Throws std::runtime_error when it is not taken within a second.
  void Send();

  /// Takes and checks what has come back, without waiting.
  void Receive();

  /// Takes what comes back within `timeout_ms`, until nothing is in flight; the rest is lost.
  /// Throws std::runtime_error when too much has been lost to go on.
  void Drain(int timeout_ms);

  int fd() const { return back_.get(); }  // readable when something has come back
  const StreamCounters& counters() const { return counters_; }

  /// From before the write of a packet until after the read of its last byte.
  std::vector<uint32_t> TakeRoundTripsNs();

 private:
  static constexpr uint32_t kRemembered = 256;  // packets in flight whose stamps are known

  uint32_t in_flight() const { return sent_number_ - received_number_; }
  const std::byte* PayloadOf(uint32_t number) const;
  KvoxPacketHeader HeaderOf(uint32_t number) const;
  void Check(uint64_t now_ns);

  const uint32_t payload_size_;
  const UniqueFd out_;
  const UniqueFd back_;
  const std::vector<std::byte> noise_;
  std::vector<std::byte> outgoing_;
  std::vector<std::byte> incoming_;
  size_t incoming_size_ = 0;
  uint32_t sent_number_ = 0;
  uint32_t received_number_ = 0;
  std::array<uint64_t, kRemembered> stamps_ = {};
  StreamCounters counters_;
  std::vector<uint32_t> round_trips_ns_;
};

using LoopbackStreams = std::vector<std::unique_ptr<LoopbackStream>>;

/// The streams 0 to `count` - 1. Throws std::runtime_error.
LoopbackStreams MakeStreams(const std::filesystem::path& devices, unsigned count,
                            uint32_t payload_size);

StreamCounters Sum(const LoopbackStreams& streams);

// These throw as the streams do.

/// Sends over each stream in turn, each packet when the one before is back.
void PlayPingPong(const LoopbackStreams& streams, unsigned packets);

/// Sends a packet over every stream in each period, spread evenly over it.
void PlayPaced(const LoopbackStreams& streams, unsigned periods, std::chrono::nanoseconds period);

}  // namespace kvox::bench
