#include "sim/faults/packet_faults.h"

#include <algorithm>
#include <cstring>

#include "sim/scenario/scenario.h"

namespace kvox::sim {
namespace {

constexpr uint32_t kWrongBits = 0x55;

/// Changes one field of the header that is sent, but not in OutPacket::header.
void Flip(OutPacket& packet, size_t offset) {
  uint32_t field = 0;
  std::memcpy(&field, &packet.bytes[packet.at + offset], sizeof field);
  field ^= kWrongBits;
  std::memcpy(&packet.bytes[packet.at + offset], &field, sizeof field);
}

void Put(OutPacket& packet, size_t offset, uint32_t field) {
  std::memcpy(&packet.bytes[packet.at + offset], &field, sizeof field);
}

/// A reader waits for a wrong but valid size, and takes the packets that follow as audio of this
/// one.
void SetSize(const FaultConfig& fault, OutPacket& packet) {
  Put(packet, offsetof(KvoxPacketHeader, payload_size), fault.bytes);
  const size_t size = packet.bytes.size() - packet.at;
  if (fault.bytes <= kPacketMaxPayload) packet.excused += static_cast<uint32_t>(fault.bytes / size);
}

void AddJunk(const FaultConfig& fault, OutPacket& packet) {
  std::vector<std::byte> junk(fault.bytes);
  for (size_t i = 0; i < junk.size(); ++i) junk[i] = static_cast<std::byte>(0x80 | i % 0x3B);
  packet.bytes.insert(packet.bytes.begin(), junk.begin(), junk.end());
  packet.at += junk.size();
}

/// Half of it, in multiples of 8 bytes, as devices deliver.
void Cut(OutPacket& packet) {
  const size_t size = packet.bytes.size() - packet.at;
  packet.bytes.resize(packet.at + size / 2 / 8 * 8);
}

void Jump(const FaultConfig& fault, OutPacket& packet) {
  packet.header.packet_num += fault.packets;
  Put(packet, offsetof(KvoxPacketHeader, packet_num), packet.header.packet_num);
}

struct Row {
  FaultKind kind;
  void (*corrupt)(const FaultConfig&, OutPacket&);
};
/// In the order in which they are applied to one packet: moving and cutting come last.
constexpr Row kRows[] = {
    {FaultKind::kPacketMagic,
     [](const FaultConfig&, OutPacket& packet) {
       Flip(packet, offsetof(KvoxPacketHeader, magic));
     }},
    {FaultKind::kPacketVersion,
     [](const FaultConfig&, OutPacket& packet) {
       Flip(packet, offsetof(KvoxPacketHeader, version));
     }},
    {FaultKind::kPacketSize, SetSize},
    {FaultKind::kPacketNumber, Jump},
    {FaultKind::kPacketCut, [](const FaultConfig&, OutPacket& packet) { Cut(packet); }},
    {FaultKind::kPacketJunk, AddJunk},
    {FaultKind::kPacketLate,
     [](const FaultConfig& fault, OutPacket& packet) {
       packet.delay_ns += static_cast<uint64_t>(fault.delay * 1e9);
     }},
    {FaultKind::kPacketBurst,
     [](const FaultConfig& fault, OutPacket& packet) { packet.burst = fault.packets; }},
    {FaultKind::kPacketDuplicate,
     [](const FaultConfig&, OutPacket& packet) { packet.copies *= 2; }},
    {FaultKind::kPacketDrop, [](const FaultConfig&, OutPacket& packet) { packet.copies = 0; }},
};

}  // namespace

void CorruptPacket(std::span<const FaultConfig> faults, OutPacket& packet) {
  for (const Row& row : kRows) {
    for (const FaultConfig& fault : faults) {
      if (fault.kind != row.kind) continue;
      row.corrupt(fault, packet);
      // A jump of the number alone loses nothing.
      if (row.kind != FaultKind::kPacketNumber) packet.excused += 1 + kReaderRecovery;
    }
  }
}

std::optional<KvoxTapFormat> ChangedFormat(std::span<const FaultConfig> faults,
                                           const KvoxTapFormat& format, uint32_t block_length) {
  const auto fault = std::ranges::find(faults, FaultKind::kPacketFormat, &FaultConfig::kind);
  if (fault == faults.end()) return std::nullopt;
  KvoxTapFormat changed = format;
  for (const int channels : {int{fault->channels}, format.channels == 1 ? 2 : 1, 4, 8}) {
    changed.channels = static_cast<uint8_t>(channels);
    if (channels == format.channels || BlockProblem(changed, block_length)) continue;
    return changed;
  }
  return std::nullopt;
}

std::vector<std::byte> Remix(std::span<const std::byte> audio, const KvoxTapFormat& from,
                             const KvoxTapFormat& to) {
  const size_t frames = audio.size() / FrameSize(from);
  const size_t sample = from.bytes_per_sample;
  std::vector<std::byte> remixed(frames * FrameSize(to));
  for (size_t i = 0; i < frames * to.channels; ++i) {
    const size_t source = i / to.channels * from.channels + i % to.channels % from.channels;
    std::memcpy(&remixed[i * sample], &audio[source * sample], sample);
  }
  return remixed;
}

}  // namespace kvox::sim
