#include <gtest/gtest.h>

#include <random>
#include <thread>
#include <vector>

#include "libkvox/audio/block_timeline.h"
#include "libkvox/audio/packet_format.h"
#include "libkvox/audio/samples.h"
#include "libkvox/calls/call_thread.h"

namespace kvox::client {
namespace {

using flight::PacketRecord;
using std::chrono::milliseconds;

constexpr uint64_t kMs = 1'000'000;
constexpr uint32_t kRelay = 0x61727430;
constexpr uint32_t kRate = 48'000;
constexpr uint64_t kFrames = 480;  // 10 ms

PacketRecord Packet(uint32_t number, uint64_t arrived_ms) {
  PacketRecord record = {};
  record.number = number;
  record.arrived_ns = arrived_ms * kMs;
  record.dispatch_ns = 2 * kMs;
  return record;
}

TEST(FormatOf, ReadsCodesAndRefusesUnknownOnes) {
  using aidl::kvox::IKvox;
  IKvox::AudioPacket packet;
  packet.sampleRate = 5;
  packet.format = 1;
  packet.bitsPerSample = 3;
  packet.numChannels = 2;
  const auto format = FormatOf(packet);
  ASSERT_TRUE(format);
  EXPECT_EQ(Describe(*format), "48000 Hz, 2 channels, float32");
  packet.data.resize(7);
  EXPECT_EQ(BlockNs(packet), 0) << "less than a frame";
  packet.data.resize(480 * 8);
  EXPECT_EQ(BlockNs(packet), 10'000'000);
  for (int8_t IKvox::AudioPacket::*code :
       {&IKvox::AudioPacket::sampleRate, &IKvox::AudioPacket::format,
        &IKvox::AudioPacket::bitsPerSample}) {
    IKvox::AudioPacket unknown = packet;
    unknown.*code = -1;
    EXPECT_FALSE(FormatOf(unknown));
  }
}

/// Blocks get the packets they come from, whatever the client was slow at.
TEST(BlockMatcher, FindsThePacketOfEachBlock) {
  BlockMatcher matcher(kRelay);
  BlockMatcher::Match match;
  EXPECT_EQ(matcher.Find(101 * kMs, match), BlockMatcher::Result::kNotYet);
  PacketRecord late = Packet(2, 110);
  late.loss = flight::Loss::kClientLate;
  late.slowest_id = kRelay;
  late.client_ns = 5 * kMs;
  PacketRecord busy = Packet(3, 120);
  busy.loss = flight::Loss::kClientLate;
  busy.slowest_id = kRelay;
  PacketRecord fresh = Packet(7, 150);
  fresh.flags = flight::kFirst;
  const PacketRecord records[] = {Packet(1, 100), late,  busy,
                                  Packet(4, 130), fresh, Packet(8, 160)};
  matcher.Add(records);
  const struct {
    uint64_t received_ms;
    BlockMatcher::Result result;
    uint32_t number;
    bool renumbered;
  } rows[] = {
      {101, BlockMatcher::Result::kFound, 1, false},
      {128, BlockMatcher::Result::kFound, 2, false},  // its process stood still
      {131, BlockMatcher::Result::kFound, 4, false},  // 3 was dropped meanwhile
      {141, BlockMatcher::Result::kNever, 0, false},  // its record was not readable
      {151, BlockMatcher::Result::kFound, 7, true},
      {161, BlockMatcher::Result::kFound, 8, false},
      {171, BlockMatcher::Result::kNotYet, 0, false},
  };
  for (const auto& row : rows) {
    ASSERT_EQ(matcher.Find(row.received_ms * kMs, match), row.result) << row.received_ms;
    if (row.result != BlockMatcher::Result::kFound) continue;
    EXPECT_EQ(match.record.number, row.number);
    EXPECT_EQ(match.renumbered, row.renumbered) << row.number;
  }
  // This process stood still, and so did the daemon: it records 9 only now, as late.
  matcher.GiveUp(181 * kMs);
  late.number = 9;
  late.arrived_ns = 180 * kMs;
  const PacketRecord after[] = {late, Packet(75, 840)};
  matcher.Add(std::span(after).first(1));
  EXPECT_EQ(matcher.Find(841 * kMs, match), BlockMatcher::Result::kNotYet);
  matcher.Add(std::span(after).last(1));
  ASSERT_EQ(matcher.Find(841 * kMs, match), BlockMatcher::Result::kFound);
  EXPECT_EQ(match.record.number, 75u);
}

TEST(BlockTimeline, CountsByNumbersAndFallsBackToTheClock) {
  BlockTimeline timeline;
  const auto packet = [&](uint32_t number, uint64_t at_ms, uint8_t flags = 0,
                          bool renumbered = false) {
    PacketRecord record = Packet(number, at_ms);
    record.flags = flags;
    return timeline.Next(BlockMatcher::Match{record, renumbered}, 0, kFrames, kRate);
  };
  const auto unknown = [&](uint64_t at_ms) {
    return timeline.Next(std::nullopt, at_ms * kMs, kFrames, kRate);
  };
  EXPECT_EQ(packet(10, 1000).missing, 0u);
  EXPECT_EQ(packet(11, 1029).missing, 0u) << "late is not missing";
  EXPECT_EQ(packet(14, 1040).missing, 2 * kFrames);
  EXPECT_TRUE(packet(14, 1041, flight::kRepeated).repeated);
  EXPECT_TRUE(packet(13, 1042, flight::kRepeated).repeated);
  EXPECT_EQ(packet(15, 1050).missing, 0u);
  // A block whose record was not readable is no gap, and is not counted twice.
  EXPECT_EQ(unknown(1060).missing, 0u);
  EXPECT_EQ(packet(17, 1070).missing, 0u);
  EXPECT_EQ(unknown(1100).missing, 2 * kFrames);
  EXPECT_EQ(packet(21, 1110).missing, 0u);
  // Numbers that begin anew.
  const auto restarted = packet(0, 1620, flight::kRepeated);
  EXPECT_EQ(restarted.missing, 50 * kFrames);
  EXPECT_TRUE(restarted.estimated);
  EXPECT_EQ(packet(1, 1630, flight::kFirst, true).missing, 0u);
  EXPECT_EQ(packet(3, 1650).missing, kFrames);
  EXPECT_EQ(packet(1003, 1660).missing, 0u) << "a number that cannot be right";
  EXPECT_EQ(packet(5, 1670).missing, 0u);
  EXPECT_EQ(packet(6, 1680).missing, 0u);
  timeline.Restart();
  EXPECT_EQ(packet(900, 1790).missing, 10 * kFrames) << "the daemon was away";
}

TEST(BlockTimeline, TheClockForgivesJitterAndDrift) {
  BlockTimeline timeline;
  const auto missing = [&](uint64_t at_ns) {
    return timeline.Next(std::nullopt, at_ns, kFrames, kRate).missing;
  };
  for (const uint64_t ms : {1000u, 1010u, 1026u, 1030u, 1043u, 1050u}) {
    EXPECT_EQ(missing(ms * kMs), 0u) << ms;
  }
  uint64_t now_ns = 1050 * kMs;
  for (int i = 0; i < 5000; ++i) {
    ASSERT_EQ(missing(now_ns += 10 * kMs + 2'000), 0u) << "a slower clock is no gap";
  }
  EXPECT_NEAR(static_cast<double>(missing(now_ns + 110 * kMs)), 4800, 20);
}

TEST(Samples, AreTheSameAfterDecodingAndEncoding) {
  std::mt19937 random(1);
  for (const SoundFormat& format :
       {SoundFormat{.bits = 16}, SoundFormat{.bits = 24}, SoundFormat{.bits = 32},
        SoundFormat{.bits = 32, .encoding = Kvox::DataFormat::FLOAT},
        SoundFormat{.bits = 8, .encoding = Kvox::DataFormat::SULAW}}) {
    std::vector<std::byte> data(1200);
    for (std::byte& byte : data) byte = static_cast<std::byte>(random());
    if (format.encoding == Kvox::DataFormat::FLOAT) {
      std::vector<double> values(300);
      for (double& value : values) value = static_cast<double>(random() % 20001) / 10000.0 - 1;
      Encode(values, format, data);
    }
    for (std::byte& byte : data) {
      if (format.encoding == Kvox::DataFormat::SULAW && byte == std::byte{0x7F}) byte = {};
    }
    std::vector<double> samples(data.size() / (format.bits / 8));
    std::vector<std::byte> again(data.size());
    Decode(data, format, samples);
    Encode(samples, format, again);
    EXPECT_EQ(again, data) << Describe(format);
    for (const double sample : samples) ASSERT_LE(std::abs(sample), 1.0);
    // Beyond full scale is clipped, not wrapped.
    if (format.encoding == Kvox::DataFormat::FLOAT) continue;
    const double loud[] = {1.5, -1.5};
    std::vector<std::byte> clipped(2 * (format.bits / 8));
    Encode(loud, format, clipped);
    std::vector<double> heard(2);
    Decode(clipped, format, heard);
    EXPECT_GT(heard[0], 0.95);
    EXPECT_LT(heard[1], -0.95);
  }
}

TEST(CallThread, GivesUpACallThatHangsAndGoesOn) {
  CallThread thread;
  auto released = std::make_shared<std::atomic<bool>>(false);
  auto ended = std::make_shared<std::atomic<bool>>(false);
  EXPECT_FALSE(thread.Run(
      [released, ended] {
        while (!*released) std::this_thread::sleep_for(milliseconds(1));
        *ended = true;
      },
      milliseconds(20)));
  int calls = 0;
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(thread.Run([&] { ++calls; }, std::chrono::seconds(60)));
  }
  EXPECT_EQ(calls, 100);
  *released = true;
  while (!*ended) std::this_thread::sleep_for(milliseconds(1));
}

}  // namespace
}  // namespace kvox::client
