#include "kvox/sound/sound_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "tests/support/temp_directory.h"

namespace kvox {
namespace {

using ::testing::HasSubstr;

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

  /// Samples of one type through a mono file of that type, read as another.
  template <typename To, typename From>
  std::vector<To> Convert(const SoundFormat& from, const std::vector<From>& samples,
                          const SoundFormat& to) {
    SoundWriter(directory_ / "a.wav", from).Write(std::as_bytes(std::span(samples)));
    SoundReader reader(directory_ / "a.wav");
    reader.ConvertTo(to);
    std::vector<To> converted(samples.size());
    reader.Read(std::as_writable_bytes(std::span(converted)));
    return converted;
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

TEST_F(SoundFileTest, SamplesAreConvertedByValue) {
  const SoundFormat int16 = {48000, 1, 16, Kvox::DataFormat::INT};
  const SoundFormat int32 = {48000, 1, 32, Kvox::DataFormat::INT};
  const SoundFormat real = {48000, 1, 32, Kvox::DataFormat::FLOAT};
  EXPECT_EQ(Convert<int16_t>(real, std::vector<float>{0.25f, -0.5f, 1.0f, -9.0f}, int16),
            (std::vector<int16_t>{8192, -16384, 32767, -32768}));
  EXPECT_EQ(Convert<int32_t>(int16, std::vector<int16_t>{1, -1}, int32),
            (std::vector<int32_t>{0x10000, -0x10000}));
  EXPECT_EQ(Convert<int16_t>(int32, std::vector<int32_t>{0x1ffff, -1}, int16),
            (std::vector<int16_t>{1, -1}))
      << "truncated";
  EXPECT_EQ(Convert<float>(int16, std::vector<int16_t>{16384}, real), (std::vector<float>{0.5f}));
}

TEST_F(SoundFileTest, ReadingStartsAnywhere) {
  const SoundFormat mono = {48000, 1, 16, Kvox::DataFormat::INT};
  Write("a.wav", mono, Counting(8));
  SoundReader reader(directory_ / "a.wav");
  reader.ConvertTo(mono);
  std::vector<std::byte> frame(2);
  for (const uint64_t at : {2u, 3u, 0u}) {
    reader.Seek(at);
    EXPECT_EQ(reader.Read(frame), 2u);
    EXPECT_EQ(frame[0], std::byte(at * 2));
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
              HasSubstr("slow.wav' has 16000 Hz and 1 channels; expected 48000 Hz, 2 channels, "
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
}  // namespace kvox
