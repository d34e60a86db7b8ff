#include "buffer/packet_ring.h"

#include <gtest/gtest.h>

#include <future>

#include "tests/support/bytes.h"
#include "tests/support/process.h"

namespace kvox {
namespace {

TEST(RingCounters, SplitWhatReachesOverTheEndAndWrapAround) {
  RingCounters counters(16, 0xFFFFFFFA);  // six bytes before the counters wrap, at offset 10
  const auto expect = [](const RingCounters::Extent& extent, size_t offset, size_t first,
                         size_t rest) {
    EXPECT_EQ(extent.offset, offset);
    EXPECT_EQ(extent.first, first);
    EXPECT_EQ(extent.rest, rest);
  };
  expect(counters.ToWrite(2, 8), 12, 4, 4);
  counters.Commit(10);
  EXPECT_EQ(counters.Writable(), 6u);
  EXPECT_EQ(counters.Readable(), 10u);
  expect(counters.ToRead(0, 6), 10, 6, 0);
  counters.Release(10);
  counters.Commit(16);
  EXPECT_EQ(counters.Writable(), 0u);
  EXPECT_EQ(counters.Readable(), 16u);
}

class PacketRingTest : public ::testing::Test {
 protected:
  static bool Push(PacketRing& ring, uint32_t number, uint32_t payload_size) {
    const Bytes packet = MakePacket(number, payload_size);
    return ring.Push(HeaderOf(packet), AudioOf(packet));
  }

  /// The next packet in full; empty when there is none.
  Bytes Pop(PacketRing& ring) {
    KvoxPacketHeader header;
    std::span<const std::byte> payload;
    if (!ring.Pop(header, area_, payload)) return {};
    Bytes packet(kPacketHeaderSize);
    std::memcpy(packet.data(), &header, sizeof header);
    packet.insert(packet.end(), payload.begin(), payload.end());
    return packet;
  }

  Bytes area_ = Bytes(kPacketMaxPayload);
};

TEST_F(PacketRingTest, TakesWhatFitsAndGivesItBackInOrder) {
  PacketRing ring(1024, 0xFFFFFF00);
  EXPECT_EQ(Pop(ring), Bytes());
  EXPECT_TRUE(Push(ring, 1, 400));
  EXPECT_FALSE(ring.HalfFull());
  EXPECT_TRUE(Push(ring, 2, 0));
  EXPECT_TRUE(ring.HalfFull());
  EXPECT_FALSE(Push(ring, 3, 412)) << "one word more than there is room";
  EXPECT_TRUE(Push(ring, 4, 408))
      << "reaches over the end of the ring, fills it, and comes after 2";
  EXPECT_FALSE(Push(ring, 5, 0));
  EXPECT_EQ(Pop(ring), MakePacket(1, 400));
  EXPECT_EQ(Pop(ring), MakePacket(2, 0));
  EXPECT_EQ(Pop(ring), MakePacket(4, 408));
  EXPECT_EQ(Pop(ring), Bytes());
}

TEST_F(PacketRingTest, CarriesPacketsOfAnySizeBetweenTwoThreads) {
  constexpr uint32_t kPackets = 600;
  PacketRing ring(kPacketMaxSize * 2);
  const auto size = [](uint32_t number) { return number * 7919 % kPacketMaxPayload / 4 * 4; };
  const std::future<void> producer = std::async(std::launch::async, [&] {
    for (uint32_t number = 0; number < kPackets; ++number) {
      if (!YieldUntil([&] { return Push(ring, number, size(number)); })) return;
    }
  });
  for (uint32_t number = 0; number < kPackets; ++number) {
    Bytes packet;
    ASSERT_TRUE(YieldUntil([&] { return !(packet = Pop(ring)).empty(); }));
    ASSERT_EQ(packet, MakePacket(number, size(number)));
  }
}

}  // namespace
}  // namespace kvox
