// The unit on every data device: a 64-byte header, then the audio block. docs/protocol.md has the
// byte table; daemon, simulator and tests share this header.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "kvox/common/four_cc.h"
#include "kvox/common/tap_format.h"

namespace kvox {

static_assert(std::endian::native == std::endian::little, "the wire is little-endian");

inline constexpr uint32_t kPacketMagic = MakeFourCc("Kvox");
inline constexpr uint32_t kPacketVersion = 1;
inline constexpr uint32_t kPacketHeaderSize = 64;
inline constexpr uint32_t kPacketMaxSize = 65536;
inline constexpr uint32_t kPacketMaxPayload = kPacketMaxSize - kPacketHeaderSize;

struct KvoxPacketHeader {
  uint32_t magic = kPacketMagic;
  uint32_t version = kPacketVersion;
  uint64_t stamp = 0;         // carried from a received packet into the one injected for it
  uint32_t packet_num = 0;    // one more than the packet before
  uint32_t payload_size = 0;  // bytes; a multiple of 4, at most kPacketMaxPayload
  KvoxTapFormat format;
  uint8_t rest[28] = {};  // carried, never interpreted
};
static_assert(sizeof(KvoxPacketHeader) == kPacketHeaderSize &&
              std::is_trivially_copyable_v<KvoxPacketHeader>);
static_assert(offsetof(KvoxPacketHeader, stamp) == 8 &&
              offsetof(KvoxPacketHeader, packet_num) == 16 &&
              offsetof(KvoxPacketHeader, payload_size) == 20 &&
              offsetof(KvoxPacketHeader, format) == 24 && offsetof(KvoxPacketHeader, rest) == 36);

/// Bytes of one frame; 0 when the header names no channels or no bytes a sample.
constexpr uint32_t FrameSize(const KvoxTapFormat& format) {
  return uint32_t{format.channels} * format.bytes_per_sample;
}

/// Frames of a block of `payload_size` bytes; 0 when the frame size is 0.
constexpr uint32_t FrameCount(const KvoxTapFormat& format, uint32_t payload_size) {
  const uint32_t frame = FrameSize(format);
  return frame == 0 ? 0 : payload_size / frame;
}

}  // namespace kvox
