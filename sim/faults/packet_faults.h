// Applies faults to a packet for a tap-out device.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "kvox/common/kvox_packet.h"
#include "sim/faults/fault.h"

namespace kvox::sim {

/// Packets after a corrupted one that may be lost too: half a packet swallows the next one, and two
/// late ones in a row make the reader restart.
inline constexpr uint32_t kReaderRecovery = 2;

/// One write into the device.
struct OutPacket {
  KvoxPacketHeader header;       // with which it comes back
  std::vector<std::byte> bytes;  // a packet, perhaps corrupted
  size_t at = 0;                 // offset of the packet in `bytes`
  uint64_t due_ns = 0;
  uint64_t delay_ns = 0;
  uint64_t send_ns = 0;  // at the earliest
  uint32_t burst = 0;    // packets to hold back, this one the first
  uint32_t copies = 1;   // 0: it is not sent
  uint32_t excused = 0;  // packets, from this one on, that need not come back
};

/// Applies the faults to a whole packet.
void CorruptPacket(std::span<const FaultConfig> faults, OutPacket& packet);

/// The format in which a packet-format fault sends blocks of `block_length` frames: with another
/// number of channels, so that the packets come as often as before. Nothing when there is no such
/// fault, or no packet can carry it.
std::optional<KvoxTapFormat> ChangedFormat(std::span<const FaultConfig> faults,
                                           const KvoxTapFormat& format, uint32_t block_length);

/// Interleaved audio with another number of channels: the last ones are left out, or all repeated.
std::vector<std::byte> Remix(std::span<const std::byte> audio, const KvoxTapFormat& from,
                             const KvoxTapFormat& to);

}  // namespace kvox::sim
