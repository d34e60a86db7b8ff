#include "buffer/stream_parser.h"

#include <gtest/gtest.h>

#include "tests/support/bytes.h"

namespace kvox {
namespace {

using Next = StreamFindings::Next;

class StreamParserTest : public ::testing::Test {
 protected:
  /// A read of exactly these bytes, which must be no more than the parser asked for.
  StreamFindings Read(const Bytes& bytes) {
    const auto area = parser_.ReadArea();
    EXPECT_LE(bytes.size(), area.size());
    std::memcpy(area.data(), bytes.data(), bytes.size());
    return parser_.Consume(bytes.size());
  }

  void ExpectPacket(const StreamFindings& findings, const Bytes& packet) {
    ASSERT_EQ(findings.next, Next::kPacket);
    ASSERT_EQ(findings.expected, packet.size());
    EXPECT_EQ(std::memcmp(findings.packet, packet.data(), packet.size()), 0);
    parser_.StartOver();
  }

  /// Brings the parser into step with packets of this payload size.
  void Sync(uint32_t payload_size) {
    ExpectPacket(Read(MakePacket(0, payload_size)), MakePacket(0, payload_size));
  }

  std::array<std::byte, kPacketMaxSize> receive_;
  std::array<std::byte, kPacketMaxSize> packet_;
  StreamParser parser_{receive_, packet_};
};

TEST_F(StreamParserTest, ReadsWholePacketsOnceInStep) {
  EXPECT_EQ(parser_.ReadArea().size(), kPacketMaxSize);
  Sync(1920);
  for (uint32_t number = 1; number < 4; ++number) {
    EXPECT_EQ(parser_.ReadArea().size(), 1984u);
    const StreamFindings findings = Read(MakePacket(number, 1920));
    EXPECT_EQ(findings.packet, receive_.data()) << "a packet that arrives whole is not copied";
    ExpectPacket(findings, MakePacket(number, 1920));
  }
}

TEST_F(StreamParserTest, LastMagicInAReadWins) {
  ExpectPacket(Read(Bytes(24) + MakePacket(1, 480) + MakePacket(3, 480)), MakePacket(3, 480));
  // Also in step, and also when the magic is inside the audio.
  const Bytes trap = With(MakePacket(4, 480), 64 + 240, kPacketMagic);
  const StreamFindings findings = Read(trap);
  EXPECT_EQ(findings.next, Next::kRead);
  EXPECT_TRUE(findings.BadHeader());
}

TEST_F(StreamParserTest, PutsAPacketTogetherFromAnyReads) {
  const Bytes packet = MakePacket(9, 4096);
  for (const size_t piece : {8u, 40u, 64u, 72u, 2048u}) {
    parser_.Resync();
    size_t at = 0;
    for (; at + piece < packet.size(); at += piece) {
      EXPECT_EQ(Read(Part(packet, at, piece)).next, Next::kRead) << piece << " at " << at;
    }
    if (at >= kPacketHeaderSize) {
      EXPECT_EQ(parser_.ReadArea().size(), packet.size() - at);
    }
    ExpectPacket(Read(Part(packet, at, packet.size() - at)), packet);
  }
}

TEST_F(StreamParserTest, ReadsWithoutMagicAreSkippedWithoutLosingTheStep) {
  EXPECT_EQ(Read(Bytes(4096)).skipped, 4096u);
  Sync(480);
  const StreamFindings findings = Read(Bytes(544));
  EXPECT_EQ(findings.skipped, 544u);
  EXPECT_EQ(findings.next, Next::kRead);
  EXPECT_FALSE(parser_.resyncing());
  ExpectPacket(Read(MakePacket(2, 480)), MakePacket(2, 480));
}

TEST_F(StreamParserTest, AnUnalignedReadDropsEverythingAndResyncs) {
  Sync(480);
  Read(Part(MakePacket(1, 480), 0, 128));
  const StreamFindings findings = Read(Bytes(12));
  EXPECT_EQ(findings.next, Next::kStartOver);
  EXPECT_EQ(findings.misaligned, 12u);
  EXPECT_TRUE(parser_.resyncing());
  EXPECT_FALSE(parser_.assembling());
  ExpectPacket(Read(MakePacket(2, 480)), MakePacket(2, 480));
}

TEST_F(StreamParserTest, HeadersThatFailTheirChecksLeadBackToResync) {
  const struct {
    uint32_t version;
    uint32_t payload_size;
    std::optional<uint32_t> bad_version;
    std::optional<uint32_t> bad_size;
  } rows[] = {
      {2, 480, 2, {}},      {1, 65476, {}, 65476},
      {1, 1002, {}, 1002},  {1, 0xFFFFFFFC, {}, 0xFFFFFFFC},
      {0, 65473, 0, 65473},
  };
  for (const auto& row : rows) {
    Sync(480);
    Bytes packet = With(MakePacket(1, 480), 4, row.version);
    const StreamFindings findings = Read(With(packet, 20, row.payload_size));
    EXPECT_EQ(findings.next, Next::kRead);
    EXPECT_EQ(findings.bad_version, row.bad_version);
    EXPECT_EQ(findings.bad_payload_size, row.bad_size);
    EXPECT_FALSE(parser_.assembling());
    EXPECT_EQ(parser_.ReadArea().size(), kPacketMaxSize) << "resynchronising";
  }
  ExpectPacket(Read(MakePacket(2, 480)), MakePacket(2, 480));
}

TEST_F(StreamParserTest, SmallestAndLargestPacketsPass) {
  ExpectPacket(Read(MakePacket(1, 0)), MakePacket(1, 0));
  parser_.Resync();
  ExpectPacket(Read(MakePacket(2, kPacketMaxPayload)), MakePacket(2, kPacketMaxPayload));
  ExpectPacket(Read(MakePacket(3, kPacketMaxPayload)), MakePacket(3, kPacketMaxPayload));
}

TEST_F(StreamParserTest, ReportsExcessFromEightBytesOn) {
  StreamFindings findings = Read(MakePacket(1, 484) + Bytes(4));
  EXPECT_EQ(findings.excess, 0u);
  EXPECT_EQ(findings.assembled, 552u);
  ExpectPacket(findings, MakePacket(1, 484));

  parser_.Resync();
  findings = Read(MakePacket(1, 480) + Bytes(8));
  EXPECT_EQ(findings.excess, 8u);
  ExpectPacket(findings, MakePacket(1, 480));

  parser_.Resync();
  findings = Read(MakePacket(2, 480) + Bytes(16));
  EXPECT_EQ(findings.excess, 16u);
  EXPECT_EQ(findings.assembled, 560u);
  ExpectPacket(findings, MakePacket(2, 480));
}

TEST_F(StreamParserTest, AReadErrorInMidPacketKeepsWhatIsThere) {
  Sync(1920);
  const Bytes packet = MakePacket(1, 1920);
  Read(Part(packet, 0, 1000));
  parser_.Resync();
  EXPECT_EQ(parser_.ReadArea().size(), kPacketMaxSize);
  // The large read brings the rest and far more than the packet area could hold.
  const StreamFindings findings = Read(Part(packet, 1000, 984) + Bytes(kPacketMaxSize - 984));
  EXPECT_EQ(findings.assembled, 1000 + kPacketMaxSize);
  EXPECT_EQ(findings.excess, 1000 + kPacketMaxSize - 1984);
  ExpectPacket(findings, packet);
}

TEST(FindLastMagic, FindsItAtEveryWordAndNowhereElse) {
  for (size_t size : {0u, 4u, 8u, 60u, 64u, 68u, 508u, 512u, 516u, 1148u}) {
    Bytes bytes(size);
    EXPECT_EQ(FindLastMagic(bytes), std::nullopt) << size;
    for (size_t at = 0; at + 4 <= size; at += 4) {
      EXPECT_EQ(FindLastMagic(With(bytes, at, kPacketMagic)), at) << size;
    }
    if (size >= 8) {
      EXPECT_EQ(FindLastMagic(With(bytes, 2, kPacketMagic)), std::nullopt);
      EXPECT_EQ(FindLastMagic(With(With(bytes, 0, kPacketMagic), 4, kPacketMagic)), 4u);
    }
  }
}

}  // namespace
}  // namespace kvox
