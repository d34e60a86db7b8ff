// The return path: packets from the stream of an inject device, the round-trip check, the sink.
#include <gtest/gtest.h>

#include <vector>

#include "sim/audio/sink.h"
#include "sim/coprocessor/round_trip.h"
#include "sim/devices/packet_reassembler.h"
#include "tests/sim/wav_file.h"
#include "tests/support/bytes.h"
#include "tests/support/temp_directory.h"

namespace kvox::sim {
namespace {

TEST(PacketReassembler, FindsPacketsAndCountsTheRest) {
  const Bytes junk(21, std::byte{'x'});  // looks like a magic's first byte all along
  const struct {
    const char* name;
    Bytes stream;
    std::vector<uint32_t> packets;
    uint64_t bad_headers, torn, junk_bytes;
  } rows[] = {
      {"in a row",
       MakePacket(1, 480) + MakePacket(2, 0) + MakePacket(3, 65472),
       {1, 2, 3},
       0,
       0,
       0},
      {"junk", junk + MakePacket(1, 8) + junk + MakePacket(2, 8), {1, 2}, 0, 0, 42},
      {"version", With(MakePacket(1, 8), 4, uint32_t{2}) + MakePacket(2, 8), {2}, 1, 0, 72},
      {"size", With(MakePacket(1, 8), 20, uint32_t{65476}) + MakePacket(2, 8), {2}, 1, 0, 72},
      {"odd size", With(MakePacket(1, 8), 20, uint32_t{6}) + MakePacket(2, 8), {2}, 1, 0, 72},
      {"torn",
       Part(MakePacket(1, 480), 0, 204) + MakePacket(2, 480) + MakePacket(3, 8),
       {2, 3},
       0,
       1,
       204},
      {"torn in the header", Part(MakePacket(1, 480), 0, 32) + MakePacket(2, 480), {2}, 0, 1, 32},
  };
  for (const auto& row : rows) {
    for (const size_t piece : {size_t{1}, size_t{50}, row.stream.size()}) {
      std::vector<uint32_t> packets;
      PacketReassembler reassembler([&](const KvoxPacketHeader& header, auto payload) {
        packets.push_back(header.packet_num);
        const Bytes sent = MakePacket(header.packet_num, header.payload_size);
        EXPECT_TRUE(std::ranges::equal(payload, AudioOf(sent)));
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

TEST(RoundTrip, ClassifiesEachPacketOnce) {
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
  trip.Expire(400 + RoundTrip::kTimeoutNs);
  EXPECT_EQ(trip.counts().missing, 0u);
  trip.Expire(401 + RoundTrip::kTimeoutNs);
  EXPECT_EQ(trip.counts().missing, 1u);
  EXPECT_EQ(trip.in_flight(), 0u);
  trip.Returned(Sent(4, 400), audio, 401 + RoundTrip::kTimeoutNs);
  EXPECT_EQ(trip.counts().unknown, 3u) << "too late";
}

TEST(RoundTrip, PacketsThatAFaultTookAreNotMissing) {
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
  trip.Expire(100 + RoundTrip::kTimeoutNs);
  EXPECT_EQ(trip.counts().exact_in_row, 3u) << "that 3 is given up was known";
  EXPECT_EQ(trip.counts().exact, 4u);
  EXPECT_EQ(trip.counts().spoiled, 2u);
  EXPECT_EQ(trip.counts().missing + trip.counts().different, 0u);
}

TEST(RoundTrip, LossesAreExcusedUntilAPacketReturns) {
  constexpr uint64_t kEnd = 1000;
  RoundTrip trip;
  const Bytes audio(20, std::byte{7});
  trip.Sent(Sent(1, 10), audio);
  trip.ExcuseLosses(kEnd);
  trip.Sent(Sent(2, 20), audio);
  trip.Returned(Sent(2, 20), audio, 30);
  trip.Sent(Sent(3, kEnd + 1), audio);
  trip.Sent(Sent(4, kEnd + 2), audio);
  trip.Returned(Sent(4, kEnd + 2), audio, kEnd + 3);
  trip.Sent(Sent(5, kEnd + 4), audio);
  trip.Expire(kEnd + 5 + RoundTrip::kTimeoutNs);
  EXPECT_EQ(trip.counts().spoiled, 2u) << "1 and 3";
  EXPECT_EQ(trip.counts().missing, 1u) << "5";

  uint64_t now = 20'000'000'000;
  trip.SetImpaired(true, now);
  trip.Sent(Sent(6, now += 1), audio);
  trip.Expire(now + 10 * RoundTrip::kTimeoutNs);
  EXPECT_EQ(trip.in_flight(), 1u) << "nobody knows how long it lasts";
  trip.SetImpaired(false, now += 50 * RoundTrip::kTimeoutNs);
  trip.Returned(Sent(6, 20'000'000'001), audio, now + 1);
  EXPECT_EQ(trip.counts().unknown, 0u);
  trip.Sent(Sent(7, now + RoundTrip::kRecoveryNs), audio);
  trip.Expire(now + 2 * RoundTrip::kRecoveryNs);
  EXPECT_EQ(trip.counts().missing, 2u) << "it should have recovered by then";
}

TEST(RoundTrip, KeepsABoundedNumberOfPackets) {
  RoundTrip trip;
  for (uint32_t i = 0; i < RoundTrip::kMaxEntries + 10; ++i) trip.Sent(Sent(i, 1), Bytes(8));
  EXPECT_EQ(trip.in_flight(), RoundTrip::kMaxEntries);
  EXPECT_EQ(trip.counts().missing, 10u);
}

TEST(WavSink, EveryFormatHasItsFile) {
  const TempDirectory directory;
  std::string error;
  const auto sink = MakeWavSink({SinkKind::kWav, directory / "out.wav", ""}, error);
  ASSERT_NE(sink, nullptr) << error;
  const auto write = [&](const KvoxTapFormat& format, const auto& samples) {
    return sink->Write(format, std::as_bytes(std::span(samples)));
  };
  const std::vector<int32_t> ints = {INT32_MIN, 5};
  const std::vector<uint8_t> codes = {0x7f, 3};
  const std::vector<float> floats = {0.25f, -2.0f};
  ASSERT_TRUE(write({.sample_rate = 8000, .channels = 1, .bytes_per_sample = 4}, ints));
  EXPECT_EQ(ReadWav<int32_t>(directory / "out.wav").size(), 2u) << "whole at any moment";
  ASSERT_TRUE(
      write({.sample_rate = 8000, .channels = 1, .bytes_per_sample = 4, .data_format = 1}, floats));
  ASSERT_FALSE(write({.sample_rate = 8000, .channels = 1, .bytes_per_sample = 5}, codes));
  ASSERT_FALSE(write({.sample_rate = 8000, .channels = 0, .bytes_per_sample = 2}, codes));
  ASSERT_TRUE(
      write({.sample_rate = 8000, .channels = 1, .bytes_per_sample = 1, .data_format = 2}, codes));
  EXPECT_EQ(ReadWav<int32_t>(directory / "out.wav"), ints);
  EXPECT_EQ(ReadWav<float>(directory / "out-2.wav"), floats);
  EXPECT_EQ(ReadWav<uint8_t>(directory / "out-3.wav"), codes);
}

}  // namespace
}  // namespace kvox::sim
