#include "sim/coprocessor/tap_stream.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "tests/support/temp_directory.h"

namespace kvox::sim {
namespace {

constexpr uint64_t kMs = 1'000'000;
using Result = PacketPort::Result;

TEST(Pacer, NeverDrifts) {
  Pacer pacer(44100, 1);
  pacer.Start(5);
  constexpr uint64_t kBlocksAnHour = 360000;
  for (uint64_t i = 1; i < kBlocksAnHour; ++i) pacer.Advance(441);
  EXPECT_NEAR(static_cast<double>(pacer.NextDue(441)), 3600e9 + 5, 2);
  pacer.Advance(441);
  EXPECT_NEAR(static_cast<double>(pacer.NextDue(882)), 3600.02e9 + 5, 2) << "another block length";
}

/// Keeps the packets written, and returns scripted results.
class FakePort : public PacketPort {
 public:
  struct Packet {
    KvoxPacketHeader header;
    std::vector<int16_t> samples;
  };

  bool HasReader() override { return reader; }
  Result Offer(std::span<const std::byte> bytes) override {
    if (result != Result::kSent) return result;
    Packet& packet = packets.emplace_back();
    std::memcpy(&packet.header, bytes.data(), sizeof packet.header);
    packet.samples.resize(packet.header.payload_size / 2);
    EXPECT_EQ(bytes.size(), sizeof packet.header + packet.header.payload_size);
    std::memcpy(packet.samples.data(), &bytes[sizeof packet.header], packet.header.payload_size);
    return Result::kSent;
  }

  bool reader = true;
  Result result = Result::kSent;
  std::vector<Packet> packets;
};

/// The n-th frame is the sample n.
class Counting : public Source {
 public:
  void Read(uint64_t frame, std::span<std::byte> block) override {
    for (size_t at = 0; at < block.size(); at += 2) {
      const auto sample = static_cast<int16_t>(frame++);
      std::memcpy(&block[at], &sample, sizeof sample);
    }
  }
};

class TapStreamTest : public ::testing::Test {
 protected:
  TapStreamTest() {
    tap_.config = {.name = MakeFourCc("imic"),
                   .format = {.sample_rate = 48000, .channels = 1, .bytes_per_sample = 2}};
    tap_.source = std::make_unique<Counting>();
    tap_.block_length = 480;
    tap_.inject = 20;
  }
  /// Runs whenever the stream asks for it, up to `until` and no later.
  void RunUntil(TapStream& stream, uint64_t until) {
    for (int runs = 0; next_ <= until && runs < 10'000; ++runs) next_ = stream.Run(now_ = next_);
    now_ = until;
  }

  Tap tap_;
  FakePort port_;
  FaultPlan plan_{0};
  Journal journal_;
  uint64_t now_ = 0;
  uint64_t next_ = 0;
};

TEST_F(TapStreamTest, SendsABlockEachPeriodFromTheFirstFrameOn) {
  TapStream stream(tap_, 20, port_, {}, plan_, journal_, 0);
  RunUntil(stream, 1000 * kMs);
  ASSERT_EQ(port_.packets.size(), 100u);
  for (uint32_t i = 0; i < 100; ++i) {
    const FakePort::Packet& packet = port_.packets[i];
    EXPECT_EQ(packet.header.packet_num, i + 1);
    EXPECT_EQ(packet.header.stamp, (i + 1) * 10 * kMs);
    EXPECT_EQ(packet.header.format.sample_rate, 48000u);
    EXPECT_EQ(packet.samples.size(), 480u);
    EXPECT_EQ(packet.samples.front(), static_cast<int16_t>(i * 480));
  }
  EXPECT_EQ(tap_.counts.sent, 100u);
  EXPECT_EQ(tap_.round_trip.in_flight(), 100u);
}

TEST_F(TapStreamTest, ANewBlockLengthHoldsFromTheNextPacketOn) {
  TapStream stream(tap_, 20, port_, {}, plan_, journal_, 0);
  RunUntil(stream, 20 * kMs);
  tap_.block_length = 960;
  next_ = stream.Run(now_);
  RunUntil(stream, 60 * kMs);
  ASSERT_EQ(port_.packets.size(), 4u);
  EXPECT_EQ(port_.packets[2].header.payload_size, 1920u);
  EXPECT_EQ(port_.packets[2].header.stamp, 40 * kMs);
  EXPECT_EQ(port_.packets[3].samples.front(), 480 + 480 + 960);
}

TEST_F(TapStreamTest, ALossShowsAsAJump) {
  TapStream stream(tap_, 20, port_, {}, plan_, journal_, 0);
  RunUntil(stream, 20 * kMs);
  port_.result = Result::kDropped;
  RunUntil(stream, 50 * kMs);
  port_.result = Result::kSent;
  RunUntil(stream, 60 * kMs);
  next_ = 660 * kMs;  // a stall of 60 packets
  RunUntil(stream, 660 * kMs);
  ASSERT_EQ(port_.packets.size(), 4u);
  EXPECT_EQ(port_.packets[2].header.packet_num, 6u);
  EXPECT_EQ(port_.packets[3].header.packet_num, 66u);
  EXPECT_EQ(port_.packets[3].samples.front(), 65 * 480);
  EXPECT_EQ(tap_.counts.dropped, 3u);
  EXPECT_EQ(tap_.counts.skipped, 59u);
  EXPECT_EQ(tap_.counts.sent, 4u);
}

TEST(FifoWriter, NeverPutsHalfAPacket) {
  const TempDirectory directory;
  directory.MakeFifo("fifo");
  const std::string path = directory / "fifo";
  FifoWriter writer(path);
  EXPECT_FALSE(writer.HasReader());
  const int reader = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_TRUE(writer.HasReader());
  // Packets of no whole number of pages, each filled with its number.
  constexpr size_t kSize = 10'000;
  std::vector<uint8_t> sent;
  uint8_t number = 0;
  const auto offer = [&] {
    const std::vector<std::byte> packet(kSize, std::byte{++number});
    const Result result = writer.Offer(packet);
    if (result == Result::kSent) sent.push_back(number);
    return result;
  };
  while (number < 100 && offer() == Result::kSent) {
  }
  EXPECT_EQ(offer(), Result::kDropped);
  std::vector<uint8_t> received;
  std::vector<uint8_t> piece(20'000);
  for (int round = 0; round < 100; ++round) {
    const ssize_t size = read(reader, piece.data(), piece.size());
    if (size > 0) received.insert(received.end(), piece.begin(), piece.begin() + size);
    if (round < 8) offer();
    writer.Flush();
  }
  EXPECT_FALSE(writer.has_rest());
  ASSERT_EQ(received.size(), sent.size() * kSize);
  for (size_t i = 0; i < received.size(); ++i) ASSERT_EQ(received[i], sent[i / kSize]) << i;
  EXPECT_GT(sent.size(), 20u);
  EXPECT_LT(sent.size(), number) << "some did not fit";
  close(reader);
}

}  // namespace
}  // namespace kvox::sim
