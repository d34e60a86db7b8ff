#include "sim/devices/packet_reassembler.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace kvox::sim {
namespace {

const auto kMagicBytes = std::bit_cast<std::array<std::byte, sizeof kPacketMagic>>(kPacketMagic);

/// Bytes before the first magic, whole or cut off by the end; all of them when there is none.
size_t BytesBeforeMagic(std::span<const std::byte> bytes) {
  for (auto at = bytes.begin();; ++at) {
    at = std::find(at, bytes.end(), kMagicBytes[0]);
    const auto length = std::min<ptrdiff_t>(kMagicBytes.size(), bytes.end() - at);
    if (std::equal(at, at + length, kMagicBytes.begin())) {
      return static_cast<size_t>(at - bytes.begin());
    }
  }
}

bool IsPossible(const KvoxPacketHeader& header) {
  return header.magic == kPacketMagic && header.version == kPacketVersion &&
         header.payload_size <= kPacketMaxPayload && header.payload_size % 4 == 0;
}

KvoxPacketHeader HeaderAt(std::span<const std::byte> bytes) {
  KvoxPacketHeader header;
  std::memcpy(&header, bytes.data(), sizeof header);
  return header;
}

/// Where another packet begins inside this one, which was then cut off by its writer. 0 when the
/// packet is whole: no audio looks like a header.
size_t FindTear(std::span<const std::byte> packet) {
  for (size_t at = 4; at + kPacketHeaderSize <= packet.size(); at += 4) {
    if (std::memcmp(&packet[at], &kPacketMagic, sizeof kPacketMagic) == 0 &&
        IsPossible(HeaderAt(packet.subspan(at)))) {
      return at;
    }
  }
  return 0;
}

}  // namespace

void PacketReassembler::Feed(std::span<const std::byte> bytes) {
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
  size_t used = 0;
  while (const size_t size = TakeFront(std::span(buffer_).subspan(used))) used += size;
  buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<ptrdiff_t>(used));
}

/// Handles what is at the front of `bytes`. Returns its size, 0 when more has to arrive first.
size_t PacketReassembler::TakeFront(std::span<const std::byte> bytes) {
  if (const size_t junk = BytesBeforeMagic(bytes)) {
    counts_.junk_bytes += junk;
    return junk;
  }
  if (bytes.size() < kPacketHeaderSize) return 0;
  const KvoxPacketHeader header = HeaderAt(bytes);
  if (!IsPossible(header)) {
    ++counts_.bad_headers;
    counts_.junk_bytes += kMagicBytes.size();
    return kMagicBytes.size();
  }
  const size_t size = kPacketHeaderSize + header.payload_size;
  if (bytes.size() < size) return 0;
  if (const size_t tear = FindTear(bytes.first(size))) {
    ++counts_.torn;
    counts_.junk_bytes += tear;
    return tear;
  }
  ++counts_.packets;
  on_packet_(header, bytes.subspan(kPacketHeaderSize, header.payload_size));
  return size;
}

}  // namespace kvox::sim
