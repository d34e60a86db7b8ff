#include "buffer/packet_ring.h"

#include <cstring>

namespace kvox {
namespace {

/// In the ring before each payload.
struct Entry {
  KvoxPacketHeader header;
  uint64_t payload_size;
};
static_assert(sizeof(Entry) == kPacketHeaderSize + 8);

}  // namespace

PacketRing::PacketRing(uint32_t capacity, uint32_t start)
    : counters_(capacity, start), bytes_(std::make_unique<std::byte[]>(capacity)) {}

bool PacketRing::Push(const KvoxPacketHeader& header, std::span<const std::byte> payload) {
  const Entry entry = {.header = header, .payload_size = payload.size()};
  const auto size = static_cast<uint32_t>(sizeof entry + payload.size());
  if (counters_.Writable() < size) return false;
  Write(0, std::as_bytes(std::span(&entry, 1)));
  Write(sizeof entry, payload);
  counters_.Commit(size);
  return true;
}

bool PacketRing::Pop(KvoxPacketHeader& header, std::span<std::byte> payload_area,
                     std::span<const std::byte>& payload) {
  if (counters_.Readable() == 0) return false;
  Entry entry;
  Read(0, std::as_writable_bytes(std::span(&entry, 1)));
  header = entry.header;
  const std::span<std::byte> filled = payload_area.first(entry.payload_size);
  Read(sizeof entry, filled);
  counters_.Release(static_cast<uint32_t>(sizeof entry + entry.payload_size));
  payload = filled;
  return true;
}

void PacketRing::Write(uint32_t ahead, std::span<const std::byte> bytes) {
  if (bytes.empty()) return;
  const auto to = counters_.ToWrite(ahead, static_cast<uint32_t>(bytes.size()));
  std::memcpy(bytes_.get() + to.offset, bytes.data(), to.first);
  std::memcpy(bytes_.get(), bytes.data() + to.first, to.rest);
}

void PacketRing::Read(uint32_t ahead, std::span<std::byte> bytes) const {
  if (bytes.empty()) return;
  const auto from = counters_.ToRead(ahead, static_cast<uint32_t>(bytes.size()));
  std::memcpy(bytes.data(), bytes_.get() + from.offset, from.first);
  std::memcpy(bytes.data() + from.first, bytes_.get(), from.rest);
}

}  // namespace kvox
