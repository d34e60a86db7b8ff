// Interface for recording a buffer's packets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "kvox/common/kvox_packet.h"

namespace kvox {

class PacketRecorder {
 public:
  virtual ~PacketRecorder() = default;

  /// RT: sees every packet that moves through the buffer.
  virtual void Record(const KvoxPacketHeader& header, std::span<const std::byte> payload) = 0;

  /// RT: whether a recording runs, and how many samples per channel it holds.
  virtual bool recording() const = 0;
  virtual uint32_t samples() const = 0;
};

}  // namespace kvox
