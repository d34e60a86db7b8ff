#include <gtest/gtest.h>

#include <vector>

#include "client/audio/block_queue.h"
#include "client/audio/relay_session.h"

namespace kvox::client {
namespace {

constexpr int64_t kMs = 1'000'000;

TEST(BlockClock, CountsGapsAndForgivesJitterAndDrift) {
  BlockClock clock;
  const auto arrive = [&](std::initializer_list<int> times_ms) {
    for (const int ms : times_ms) clock.Arrived(ms * kMs, 10 * kMs);
    return clock.missed();
  };
  EXPECT_EQ(arrive({1000, 1010, 1026, 1030, 1036, 1050}), 0u) << "late, then early again";
  EXPECT_EQ(arrive({1070, 1080}), 1u);
  EXPECT_EQ(arrive({1120, 1130}), 4u);
  EXPECT_EQ(arrive({1149, 1150, 1160}), 4u) << "it came after all";
  int64_t now = 1160 * kMs;
  for (int i = 0; i < 5000; ++i) clock.Arrived(now += 10 * kMs + 2'000, 10 * kMs);
  EXPECT_EQ(clock.missed(), 4u) << "a slower clock is no gap";
  clock.Arrived(now + 1000 * kMs, 0);
  EXPECT_EQ(clock.missed(), 4u) << "a block without a frame tells nothing";
}

TEST(FormatOf, ReadsCodesAndRefusesUnknownOnes) {
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
  EXPECT_EQ(BlockNs(packet), 10 * kMs);
  for (int8_t IKvox::AudioPacket::*code :
       {&IKvox::AudioPacket::sampleRate, &IKvox::AudioPacket::format,
        &IKvox::AudioPacket::bitsPerSample}) {
    IKvox::AudioPacket unknown = packet;
    unknown.*code = -1;
    EXPECT_FALSE(FormatOf(unknown));
  }
}

TEST(BlockQueue, HoldsSixteenSecondsAndCountsTheRest) {
  BlockQueue queue;
  BlockQueue::Block block;
  block.sampleRate = 5;
  block.numChannels = 1;
  block.bitsPerSample = 1;
  for (const size_t frames : {4800u, 0u}) {
    const size_t fit = frames == 0 ? 1600 : 160;
    const uint64_t missed_before = queue.missed();
    block.data.resize(frames * 2);
    for (size_t i = 0; i < fit + 3; ++i) queue.Push(block, static_cast<int64_t>(i) * 100 * kMs);
    EXPECT_EQ(queue.missed(), missed_before + 3);
    EXPECT_EQ(queue.TakeAll().size(), fit);
  }
}

}  // namespace
}  // namespace kvox::client
