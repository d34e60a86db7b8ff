// What faults make of a packet on its way into a tap-out device. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "kvox/common/kvox_packet.h"
#include "sim/faults/fault.h"

namespace kvox::sim {

/// Packets after one that was struck by which a reader has found its step again. Until then they
/// may be lost too: half a packet swallows the next one, and two that come late in a row make the
/// reader begin anew.
inline constexpr uint32_t kReaderRecovery = 2;

/// One write into the device.
struct OutPacket {
  KvoxPacketHeader header;       // by which it comes back
  std::vector<std::byte> bytes;  // a packet, perhaps damaged
  size_t at = 0;                 // where the packet begins in them
  uint64_t due_ns = 0;
  uint64_t delay_ns = 0;
  uint64_t go_ns = 0;    // when it goes, at the earliest
  uint32_t burst = 0;    // packets to hold back, this one the first
  uint32_t copies = 1;   // 0: it does not go at all
  uint32_t excused = 0;  // packets, with this one, that need not come back
};

/// Lets the faults have their way with a whole packet.
void CorruptPacket(std::span<const FaultSpec> struck, OutPacket& packet);

/// The format in which a packet-format fault sends blocks of `block_length` frames: with another
/// number of channels, so that the packets come as often as before. Nothing when no such fault
/// struck, or no packet can carry it.
std::optional<KvoxTapFormat> ChangedFormat(std::span<const FaultSpec> struck,
                                           const KvoxTapFormat& format, uint32_t block_length);

/// Interleaved audio with another number of channels: the first ones are left out, or go round.
std::vector<std::byte> Remix(std::span<const std::byte> audio, const KvoxTapFormat& from,
                             const KvoxTapFormat& to);

}  // namespace kvox::sim
