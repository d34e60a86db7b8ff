#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <numeric>
#include <vector>

#include "client/audio/block_queue.h"
#include "client/audio/relay_session.h"
#include "kvox/sound/sound_file.h"
#include "tests/support/temp_directory.h"

namespace kvox::client {
namespace {

using ::testing::HasSubstr;

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

class SoundFileTest : public ::testing::Test {
 protected:
  void Write(const std::string& name, const SoundFormat& format, std::vector<std::byte> bytes) {
    SoundWriter(directory_ / name, format).Write(bytes);
  }
  std::vector<std::byte> Read(const std::string& name, const SoundFormat& format, size_t size) {
    SoundReader reader(directory_ / name);
    reader.ConvertTo(format);
    std::vector<std::byte> bytes(size, std::byte{0x55});
    read_ = reader.Read(bytes);
    return bytes;
  }

  static std::vector<std::byte> Counting(size_t size) {
    std::vector<std::byte> bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::byte>(i % 100);
    return bytes;
  }

  TempDirectory directory_;
  size_t read_ = 0;
};

TEST_F(SoundFileTest, EveryFormatComesBackAsItWas) {
  for (const SoundFormat& format : {SoundFormat{48000, 1, 16, Kvox::DataFormat::INT},
                                    SoundFormat{48000, 2, 24, Kvox::DataFormat::INT},
                                    SoundFormat{48000, 2, 32, Kvox::DataFormat::INT},
                                    SoundFormat{48000, 2, 32, Kvox::DataFormat::FLOAT}}) {
    const auto bytes = Counting(96);
    Write("a.wav", format, bytes);
    EXPECT_EQ(Read("a.wav", format, 96), bytes) << Describe(format);
    EXPECT_EQ(read_, 96u);
  }
}

TEST_F(SoundFileTest, AFileThatEndsIsFilledUpAndMonoGoesEverywhere) {
  const SoundFormat mono = {48000, 1, 16, Kvox::DataFormat::INT};
  const SoundFormat stereo = {48000, 2, 16, Kvox::DataFormat::INT};
  Write("mono.wav", mono, {std::byte{1}, std::byte{2}, std::byte{3}, std::byte{4}});
  const auto stereo_bytes = Read("mono.wav", stereo, 12);
  EXPECT_EQ(read_, 8u);
  const auto expected = {1, 2, 1, 2, 3, 4, 3, 4, 0, 0, 0, 0};
  EXPECT_TRUE(std::equal(stereo_bytes.begin(), stereo_bytes.end(), expected.begin(),
                         [](std::byte b, int i) { return static_cast<int>(b) == i; }));
}

TEST_F(SoundFileTest, AWavFileIsValidWhileItGrows) {
  const SoundFormat format = {48000, 1, 16, Kvox::DataFormat::INT};
  SoundWriter writer(directory_ / "a.wav", format);
  for (uint64_t blocks = 1; blocks <= 3; ++blocks) {
    writer.Write(Counting(960));
    EXPECT_EQ(SoundReader(directory_ / "a.wav").frame_count(), blocks * 480);
  }
}

TEST_F(SoundFileTest, WhatCannotBeIsNamed) {
  const SoundFormat stereo = {48000, 2, 16, Kvox::DataFormat::INT};
  Write("slow.wav", {16000, 1, 16, Kvox::DataFormat::INT}, Counting(4));
  directory_.MakeFifo("fifo");
  const auto refusal = [&](auto action) -> std::string {
    try {
      action();
    } catch (const SoundFileError& error) {
      return error.what();
    }
    return "";
  };
  EXPECT_THAT(refusal([&] { Read("slow.wav", stereo, 4); }),
              HasSubstr("slow.wav has 16000 Hz and 1 channels; expected 48000 Hz, 2 channels, "
                        "int16; convert it first"));
  EXPECT_THAT(refusal([&] { SoundReader(directory_ / "fifo"); }), HasSubstr("not a regular file"));
  EXPECT_THAT(refusal([&] { SoundReader(directory_ / "none.wav"); }), HasSubstr("No such file"));
  EXPECT_THAT(refusal([&] { SoundWriter("/dev/null", stereo); }), HasSubstr("not a regular file"));
  EXPECT_THAT(refusal([&] {
                SoundWriter(directory_ / "x.wav", {48000, 1, 8, Kvox::DataFormat::INT});
              }),
              HasSubstr("cannot hold 48000 Hz, 1 channel, int8"));
}

}  // namespace
}  // namespace kvox::client
