// Packets as bytes, and streams composed of them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "kvox/common/kvox_packet.h"

namespace kvox {

using Bytes = std::vector<std::byte>;

inline Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

inline Bytes Part(const Bytes& bytes, size_t from, size_t count) {
  const auto part = std::span(bytes).subspan(from, count);
  return Bytes(part.begin(), part.end());
}

/// The bytes with a field of them set to another value.
template <typename Field>
Bytes With(Bytes bytes, size_t offset, Field value) {
  std::memcpy(&bytes[offset], &value, sizeof value);
  return bytes;
}

template <typename Consumer>
void FeedInPieces(Consumer& consumer, const Bytes& stream, size_t piece) {
  for (size_t at = 0; at < stream.size(); at += piece) {
    consumer.Feed(std::span(stream).subspan(at, std::min(piece, stream.size() - at)));
  }
}

/// A valid packet, whose audio encodes its number and position.
inline Bytes MakePacket(uint32_t number, uint32_t payload_size, const KvoxTapFormat& format = {}) {
  KvoxPacketHeader header;
  header.stamp = 1000 + number;
  header.packet_num = number;
  header.payload_size = payload_size;
  header.format = format;
  Bytes bytes(kPacketHeaderSize + payload_size);
  std::memcpy(bytes.data(), &header, sizeof header);
  for (uint32_t i = 0; i < payload_size; ++i) {
    bytes[kPacketHeaderSize + i] = static_cast<std::byte>(number + i * 7);
  }
  return bytes;
}

inline KvoxPacketHeader HeaderOf(const Bytes& packet) {
  KvoxPacketHeader header;
  std::memcpy(&header, packet.data(), sizeof header);
  return header;
}

inline std::span<const std::byte> AudioOf(const Bytes& packet) {
  return std::span(packet).subspan(kPacketHeaderSize);
}

}  // namespace kvox
