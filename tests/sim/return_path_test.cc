// What comes back: packets cut from the stream of an inject device, the round-trip check, the sink.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "sim/packet_reassembler.h"
#include "sim/round_trip.h"
#include "sim/sink.h"
#include "tests/sim/bytes.h"
#include "tests/sim/wav_file.h"
#include "tests/support/temp_directory.h"

namespace kvox::sim {
namespace {

Bytes Packet(uint32_t number, uint32_t payload_size) {
  KvoxPacketHeader header;
  header.packet_num = number;
  header.payload_size = payload_size;
  Bytes bytes(kPacketHeaderSize + payload_size, std::byte{static_cast<uint8_t>(number)});
  std::memcpy(bytes.data(), &header, sizeof header);
  return bytes;
}

Bytes With(Bytes bytes, size_t offset, uint32_t value) {
  std::memcpy(&bytes[offset], &value, sizeof value);
  return bytes;
}

Bytes First(const Bytes& bytes, size_t count) {
  return Bytes(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(count));
}

TEST(PacketReassembler, FindsPacketsAndCountsTheRest) {
  const Bytes junk(21, std::byte{'x'});  // looks like a magic's first byte all along
  const struct {
    const char* name;
    Bytes stream;
    std::vector<uint32_t> packets;
    uint64_t bad_headers, torn, junk_bytes;
  } rows[] = {
      {"in a row", Packet(1, 480) + Packet(2, 0) + Packet(3, 65472), {1, 2, 3}, 0, 0, 0},
      {"junk", junk + Packet(1, 8) + junk + Packet(2, 8), {1, 2}, 0, 0, 42},
      {"version", With(Packet(1, 8), 4, 2) + Packet(2, 8), {2}, 1, 0, 72},
      {"size", With(Packet(1, 8), 20, 65476) + Packet(2, 8), {2}, 1, 0, 72},
      {"odd size", With(Packet(1, 8), 20, 6) + Packet(2, 8), {2}, 1, 0, 72},
      {"torn", First(Packet(1, 480), 204) + Packet(2, 480) + Packet(3, 8), {2, 3}, 0, 1, 204},
      {"torn in the header", First(Packet(1, 480), 32) + Packet(2, 480), {2}, 0, 1, 32},
  };
  for (const auto& row : rows) {
    for (const size_t piece : {size_t{1}, size_t{50}, row.stream.size()}) {
      std::vector<uint32_t> packets;
      PacketReassembler reassembler([&](const KvoxPacketHeader& header, auto payload) {
        packets.push_back(header.packet_num);
        EXPECT_EQ(payload.size(), header.payload_size);
        for (const std::byte byte : payload) {
          ASSERT_EQ(byte, std::byte{static_cast<uint8_t>(header.packet_num)});
        }
      });
      FeedInPieces(reassembler, row.stream, piece);
      EXPECT_EQ(packets, row.packets) << row.name << " in pieces of " << piece;
      EXPECT_EQ(reassembler.counts().packets, row.packets.size()) << row.name;
      EXPECT_EQ(reassembler.counts().bad_headers, row.bad_headers) << row.name;
      EXPECT_EQ(reassembler.counts().torn, row.torn) << row.name;
      EXPECT_EQ(reassembler.counts().junk_bytes, row.junk_bytes) << row.name;
    }
  }
}

KvoxPacketHeader Sent(uint32_t number, uint64_t stamp) {
  KvoxPacketHeader header;
  header.packet_num = number;
  header.stamp = stamp;
  return header;
}

TEST(RoundTrip, JudgesEachPacketOnce) {
  RoundTrip trip;
  const Bytes audio(20, std::byte{7});
  const Bytes zeros(20);
  Bytes changed = audio;
  changed[19] = std::byte{8};
  for (uint32_t i = 1; i <= 4; ++i) trip.Sent(Sent(i, 100 * i), audio);
  trip.Sent(Sent(5, 500), zeros);
  trip.Returned(Sent(2, 200), changed, 600);  // out of order
  trip.Returned(Sent(1, 100), audio, 700);
  trip.Returned(Sent(3, 300), zeros, 700);
  trip.Returned(Sent(5, 500), zeros, 700);
  trip.Returned(Sent(1, 100), audio, 700);  // again
  trip.Returned(Sent(4, 399), audio, 700);  // of another stream
  EXPECT_EQ(trip.counts().exact, 2u);
  EXPECT_EQ(trip.counts().silent, 1u);
  EXPECT_EQ(trip.counts().different, 1u);
  EXPECT_EQ(trip.counts().unknown, 2u);
  EXPECT_EQ(trip.counts().latency_min_ns, 200u);
  EXPECT_EQ(trip.counts().latency_max_ns, 600u);
  EXPECT_EQ(trip.counts().latency_sum_ns, 400u + 600 + 400 + 200);
  EXPECT_EQ(trip.in_flight(), 1u);
  EXPECT_EQ(trip.counts().missing, 0u);
  trip.Expire(400 + RoundTrip::kPatienceNs);
  EXPECT_EQ(trip.counts().missing, 0u);
  trip.Expire(401 + RoundTrip::kPatienceNs);
  EXPECT_EQ(trip.counts().missing, 1u);
  EXPECT_EQ(trip.in_flight(), 0u);
  trip.Returned(Sent(4, 400), audio, 401 + RoundTrip::kPatienceNs);
  EXPECT_EQ(trip.counts().unknown, 3u) << "too late";
}

TEST(RoundTrip, WhatAFaultTookAwayIsNotMissing) {
  RoundTrip trip;
  const Bytes audio(20, std::byte{7});
  const Bytes other(20, std::byte{8});
  const auto back = [&](uint32_t number, const Bytes& payload) {
    trip.Returned(Sent(number, number), payload, 100);
  };
  for (uint32_t i = 1; i <= 6; ++i) trip.Sent(Sent(i, i), audio, i <= 3);
  back(1, audio);
  EXPECT_EQ(trip.counts().exact_in_row, 1u) << "exact in spite of the fault";
  back(2, other);
  back(4, audio);
  EXPECT_EQ(trip.counts().exact_in_row, 1u) << "3 did not come";
  back(5, audio);
  back(6, audio);
  EXPECT_EQ(trip.counts().exact_in_row, 3u);
  trip.Expire(100 + RoundTrip::kPatienceNs);
  EXPECT_EQ(trip.counts().exact_in_row, 3u) << "that 3 is given up was known";
  EXPECT_EQ(trip.counts().exact, 4u);
  EXPECT_EQ(trip.counts().spoiled, 2u);
  EXPECT_EQ(trip.counts().missing + trip.counts().different, 0u);
}

TEST(RoundTrip, AfterADisturbanceTheFirstThatIsBackEndsIt) {
  constexpr uint64_t kEnd = 1000;
  RoundTrip trip;
  const Bytes audio(20, std::byte{7});
  trip.Sent(Sent(1, 10), audio);
  trip.Disturb(kEnd);
  trip.Sent(Sent(2, 20), audio);
  trip.Returned(Sent(2, 20), audio, 30);
  trip.Sent(Sent(3, kEnd + 1), audio);
  trip.Sent(Sent(4, kEnd + 2), audio);
  trip.Returned(Sent(4, kEnd + 2), audio, kEnd + 3);
  trip.Sent(Sent(5, kEnd + 4), audio);
  trip.Expire(kEnd + 5 + RoundTrip::kPatienceNs);
  EXPECT_EQ(trip.counts().spoiled, 2u) << "1 and 3";
  EXPECT_EQ(trip.counts().missing, 1u) << "5";

  uint64_t now = 20'000'000'000;
  trip.SetTrouble(true, now);
  trip.Sent(Sent(6, now += 1), audio);
  trip.Expire(now + 10 * RoundTrip::kPatienceNs);
  EXPECT_EQ(trip.in_flight(), 1u) << "nobody knows how long it lasts";
  trip.SetTrouble(false, now += 50 * RoundTrip::kPatienceNs);
  trip.Returned(Sent(6, 20'000'000'001), audio, now + 1);
  EXPECT_EQ(trip.counts().unknown, 0u);
  trip.Sent(Sent(7, now + RoundTrip::kRecoveryNs), audio);
  trip.Expire(now + 2 * RoundTrip::kRecoveryNs);
  EXPECT_EQ(trip.counts().missing, 2u) << "it should have recovered by then";
}

TEST(RoundTrip, ItsMemoryIsBounded) {
  RoundTrip trip;
  for (uint32_t i = 0; i < RoundTrip::kMemory + 10; ++i) trip.Sent(Sent(i, 1), Bytes(8));
  EXPECT_EQ(trip.in_flight(), RoundTrip::kMemory);
  EXPECT_EQ(trip.counts().missing, 10u);
}

class WavSinkTest : public ::testing::Test {
 protected:
  template <typename Sample>
  bool Write(const KvoxTapFormat& format, const std::vector<Sample>& samples) {
    return sink_->Write(format, std::as_bytes(std::span(samples)));
  }

  TempDirectory directory_;
  std::string error_;
  std::unique_ptr<Sink> sink_ = MakeWavSink({SinkKind::kWav, directory_ / "out.wav", ""}, error_);
};

TEST_F(WavSinkTest, EveryFormatHasItsFile) {
  const std::vector<float> floats = {0.25f, -2.0f};
  ASSERT_TRUE(
      Write<int32_t>({.sample_rate = 8000, .channels = 1, .bytes_per_sample = 4}, {INT32_MIN, 5}));
  EXPECT_EQ(ReadWav<int32_t>(directory_ / "out.wav").size(), 2u) << "whole at any moment";
  ASSERT_TRUE(Write<float>(
      {.sample_rate = 8000, .channels = 1, .bytes_per_sample = 4, .data_format = 1}, floats));
  ASSERT_FALSE(Write<int16_t>({.sample_rate = 8000, .channels = 1, .bytes_per_sample = 5}, {1}));
  ASSERT_FALSE(Write<int16_t>({.sample_rate = 8000, .channels = 0, .bytes_per_sample = 2}, {1}));
  ASSERT_TRUE(Write<uint8_t>(
      {.sample_rate = 8000, .channels = 1, .bytes_per_sample = 1, .data_format = 2}, {0x7f, 3}));
  EXPECT_EQ(ReadWav<int32_t>(directory_ / "out.wav"), (std::vector<int32_t>{INT32_MIN, 5}));
  EXPECT_EQ(ReadWav<float>(directory_ / "out-2.wav"), floats);
  EXPECT_EQ(ReadWav<uint8_t>(directory_ / "out-3.wav"), (std::vector<uint8_t>{0x7f, 3}));
}

TEST_F(WavSinkTest, ADirectoryThatIsNotThereIsNamed) {
  EXPECT_EQ(MakeWavSink({SinkKind::kWav, directory_ / "no/out.wav", "s.toml:4: k"}, error_),
            nullptr);
  EXPECT_EQ(error_.find("s.toml:4: k: there is no directory " + (directory_ / "no").string()), 0u);
}

}  // namespace
}  // namespace kvox::sim
