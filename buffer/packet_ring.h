// Passes packets from a thread that must never wait to one that may: a preallocated lock-free byte
// ring. One producer and one consumer at a time; a thread that takes over as producer has
// synchronised with the previous one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "buffer/ring_counters.h"
#include "kvox/common/kvox_packet.h"

namespace kvox {

class PacketRing {
 public:
  /// `capacity` bytes, headers included; a power of two, at most 2^31. Touches the memory, so that
  /// the producer causes no page faults. `start` is for tests: the initial position.
  explicit PacketRing(uint32_t capacity, uint32_t start = 0);

  /// Producer, RT: copies a packet in; false when it does not fit now. `payload` is at most
  /// kPacketMaxPayload bytes long and counts, whatever the header says.
  bool Push(const KvoxPacketHeader& header, std::span<const std::byte> payload);

  /// Producer, RT: whether at least half of the ring is taken.
  bool HalfFull() const { return counters_.Writable() <= counters_.capacity() / 2; }

  /// Consumer: takes the oldest packet out; false when there is none. `payload_area` holds
  /// kPacketMaxPayload bytes at least; `payload` becomes the part of it that the packet fills.
  bool Pop(KvoxPacketHeader& header, std::span<std::byte> payload_area,
           std::span<const std::byte>& payload);

 private:
  void Write(uint32_t ahead, std::span<const std::byte> bytes);
  void Read(uint32_t ahead, std::span<std::byte> bytes) const;

  RingCounters counters_;
  const std::unique_ptr<std::byte[]> bytes_;
};

}  // namespace kvox
