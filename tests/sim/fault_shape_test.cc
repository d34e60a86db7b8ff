// What faults make of replies and of packets.
#include "sim/reply_faults.h"

#include <gtest/gtest.h>

#include <cstring>

#include "kvox/common/control_records.h"
#include "sim/packet_faults.h"

namespace kvox::sim {
namespace {

std::vector<std::byte> Record(uint16_t opcode, uint8_t fill) {
  std::vector<std::byte> bytes(20, std::byte{fill});
  const CMD_HDR header{.size = 20, .opcode = opcode};
  std::memcpy(bytes.data(), &header, sizeof header);
  return bytes;
}

TEST(ReplyFaults, EachDoesWhatItsNameSays) {
  const auto right = Record(0xCE, 1);
  const auto last = Record(0xCD, 2);
  auto half = std::vector<std::byte>(right.begin(), right.begin() + 10);
  auto torn = half;
  half[2] = std::byte{10};
  auto stranger = right;
  stranger[5] = std::byte{1};
  const struct {
    const char* name;
    FaultSpec fault;
    std::vector<std::vector<std::byte>> replies;
    uint64_t delay_ns;
  } rows[] = {
      {"late", {.kind = FaultKind::kReplyLate, .delay = 0.5}, {right}, 500'000'000},
      {"lost", {.kind = FaultKind::kReplyLost}, {}, 0},
      {"short", {.kind = FaultKind::kReplyShort}, {half}, 0},
      {"torn", {.kind = FaultKind::kReplyShort, .torn = true}, {torn}, 0},
      {"opcode", {.kind = FaultKind::kReplyOpcode}, {stranger}, 0},
      {"stale", {.kind = FaultKind::kReplyStale}, {last, right}, 0},
      {"instead", {.kind = FaultKind::kReplyStale, .replace = true}, {last}, 0},
      {"status", {.kind = FaultKind::kReplyStatus}, {right}, 0},  // is the control point's to say
  };
  for (const auto& row : rows) {
    const auto replies = SpoilReply(std::span(&row.fault, 1), right, last);
    ASSERT_EQ(replies.size(), row.replies.size()) << row.name;
    for (size_t i = 0; i < replies.size(); ++i) {
      EXPECT_EQ(replies[i].bytes, row.replies[i]) << row.name;
      EXPECT_EQ(replies[i].delay_ns, row.delay_ns) << row.name;
    }
  }
}

TEST(PacketFaults, DamageAddsUpInOnePacket) {
  OutPacket packet;
  packet.header.packet_num = 7;
  packet.bytes.resize(kPacketHeaderSize + 960);
  std::memcpy(packet.bytes.data(), &packet.header, kPacketHeaderSize);
  const FaultSpec faults[] = {{.kind = FaultKind::kPacketJunk, .bytes = 24},
                              {.kind = FaultKind::kPacketCut},
                              {.kind = FaultKind::kPacketNumber, .packets = 5},
                              {.kind = FaultKind::kPacketDuplicate}};
  SpoilPacket(faults, packet);
  EXPECT_EQ(packet.at, 24u);
  EXPECT_EQ(packet.bytes.size(), 24u + 512);
  EXPECT_EQ(packet.header.packet_num, 12u);
  KvoxPacketHeader header;
  std::memcpy(&header, &packet.bytes[24], sizeof header);
  EXPECT_EQ(header.magic, kPacketMagic);
  EXPECT_EQ(header.packet_num, 12u);
  EXPECT_EQ(packet.copies, 2u);
  EXPECT_GT(packet.excused, kReaderRecovery);
}

TEST(PacketFaults, AnotherFormatCarriesTheSameFrames) {
  const FaultSpec fault{.kind = FaultKind::kPacketFormat};
  const KvoxTapFormat mono{.sample_rate = 48000, .channels = 1, .bytes_per_sample = 2};
  const auto stereo = ChangedFormat(std::span(&fault, 1), mono, 480);
  ASSERT_TRUE(stereo);
  EXPECT_EQ(stereo->channels, 2);
  EXPECT_EQ(ChangedFormat(std::span(&fault, 1), *stereo, 480)->channels, 1);
  EXPECT_FALSE(ChangedFormat({}, mono, 480));
  EXPECT_FALSE(ChangedFormat(std::span(&fault, 1), mono, 32736)) << "no packet is that long";
  const std::vector<std::byte> audio = {std::byte{1}, std::byte{2}, std::byte{3}, std::byte{4}};
  const auto both = Remix(audio, mono, *stereo);
  EXPECT_EQ(both.size(), 8u);
  EXPECT_EQ(both[2], std::byte{1}) << "the right channel has what the left one has";
  EXPECT_EQ(Remix(both, *stereo, mono), audio);
}

}  // namespace
}  // namespace kvox::sim
