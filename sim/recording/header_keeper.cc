#include "sim/recording/header_keeper.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <utility>

#include "kvox/common/kvox_packet.h"

namespace kvox::sim {
namespace {

/// Behind the first byte; the end when there is none.
auto NextMagic(std::vector<std::byte>& bytes) {
  const auto magic = std::bit_cast<std::array<std::byte, sizeof kPacketMagic>>(kPacketMagic);
  return std::search(bytes.begin() + 1, bytes.end(), magic.begin(), magic.end());
}

}  // namespace

/// What is no packet is left out until the next magic: it may be audio.
std::vector<HeaderKeeper::Part> HeaderKeeper::Take(std::span<const std::byte> bytes) {
  std::vector<Part> parts;
  const auto leave_out = [&](size_t length) {
    if (parts.empty()) parts.emplace_back();
    parts.back().length += length;
  };
  while (!bytes.empty()) {
    const size_t wanted = payload_ > 0 ? payload_ : kPacketHeaderSize - head_.size();
    const auto taken = bytes.first(std::min(wanted, bytes.size()));
    bytes = bytes.subspan(taken.size());
    if (payload_ > 0) {
      payload_ -= taken.size();
      leave_out(taken.size());
      continue;
    }
    head_.insert(head_.end(), taken.begin(), taken.end());
    if (head_.size() < kPacketHeaderSize) break;
    KvoxPacketHeader header;
    std::memcpy(&header, head_.data(), sizeof header);
    if (header.magic == kPacketMagic && header.payload_size <= kPacketMaxPayload) {
      payload_ = header.payload_size;
      parts.push_back({std::exchange(head_, {}), kPacketHeaderSize});
    } else {
      const auto next = NextMagic(head_);
      leave_out(static_cast<size_t>(next - head_.begin()));
      head_.erase(head_.begin(), next);
    }
  }
  return parts;
}

}  // namespace kvox::sim
