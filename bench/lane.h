// The co-processor's side of one stream: sends numbered packets into a tap-out FIFO, takes them
// back from the inject FIFO and checks every byte of them. One thread at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <vector>

#include "kvox/common/kvox_packet.h"

namespace kvox::bench {

struct LaneCounters {
  uint64_t sent = 0;
  uint64_t lost = 0;   // did not come back
  uint64_t wrong = 0;  // came back with another header or another payload
};

class Lane {
 public:
  /// Makes the two FIFOs of stream `stream` in `devices` and opens both. Throws std::runtime_error.
  Lane(const std::filesystem::path& devices, unsigned stream, uint32_t payload_size);
  ~Lane();
  Lane(const Lane&) = delete;
  Lane& operator=(const Lane&) = delete;

  /// Sends the next packet. Throws std::runtime_error when nobody takes it within a second.
  void Send();

  /// Takes and checks what has come back, without waiting.
  void Receive();

  /// Takes what comes back within `timeout_ms`, until nothing is under way; the rest is lost.
  /// Throws std::runtime_error when too much has been lost to go on.
  void Drain(int timeout_ms);

  uint32_t under_way() const { return sent_number_ - received_number_; }
  int fd() const { return back_; }  // readable when something has come back
  const LaneCounters& counters() const { return counters_; }

  /// From before the write of a packet until behind the read of its last byte.
  std::vector<uint32_t> TakeRoundTripsNs();

 private:
  static constexpr uint32_t kRemembered = 256;  // packets under way whose stamps are known

  const std::byte* PayloadOf(uint32_t number) const;
  KvoxPacketHeader HeaderOf(uint32_t number) const;
  void Check(uint64_t now_ns);

  const uint32_t payload_size_;
  int out_ = -1;
  int back_ = -1;
  const std::vector<std::byte> noise_;
  std::vector<std::byte> outgoing_;
  std::vector<std::byte> incoming_;
  size_t incoming_size_ = 0;
  uint32_t sent_number_ = 0;
  uint32_t received_number_ = 0;
  std::array<uint64_t, kRemembered> stamps_ = {};
  LaneCounters counters_;
  std::vector<uint32_t> round_trips_ns_;
};

}  // namespace kvox::bench
