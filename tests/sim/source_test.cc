#include "sim/source.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <numeric>
#include <vector>

#include "kvox/common/kvox_packet.h"
#include "sim/samples.h"
#include "tests/sim/wav_file.h"
#include "tests/support/temp_directory.h"

namespace kvox::sim {
namespace {

constexpr KvoxTapFormat kInt16Mono{.sample_rate = 48000, .channels = 1, .bytes_per_sample = 2};
constexpr KvoxTapFormat kInt16Stereo{.sample_rate = 48000, .channels = 2, .bytes_per_sample = 2};
constexpr KvoxTapFormat kInt32Mono{.sample_rate = 48000, .channels = 1, .bytes_per_sample = 4};
constexpr KvoxTapFormat kFloatMono{
    .sample_rate = 48000, .channels = 1, .bytes_per_sample = 4, .data_format = 1};
constexpr KvoxTapFormat kUlawMono{
    .sample_rate = 48000, .channels = 1, .bytes_per_sample = 1, .data_format = 2};

template <typename Sample>
std::vector<Sample> Read(Source& source, uint64_t frame, size_t samples) {
  std::vector<Sample> values(samples);
  source.Read(frame, std::as_writable_bytes(std::span(values)));
  return values;
}

std::unique_ptr<Source> Make(const KvoxTapFormat& format, const SourceConfig& config) {
  std::string error;
  auto source = MakeSource({.format = format, .source = config}, error);
  EXPECT_NE(source, nullptr) << error;
  return source;
}

TEST(Source, ASineHasItsFrequencyLevelAndAllItsChannels) {
  const auto source =
      Make(kInt16Stereo, {.kind = SourceKind::kSine, .level = -6.0206, .frequency = 12000});
  const std::vector<int16_t> quarter_turns = {0, 0, 16384, 16384, 0, 0, -16384, -16384};
  EXPECT_EQ(Read<int16_t>(*source, 0, 8), quarter_turns);
  EXPECT_EQ(Read<int16_t>(*source, 48'000'000'000, 8), quarter_turns) << "no drift in 11 days";
  const auto full = Make(kInt16Mono, {.kind = SourceKind::kSine, .level = 0, .frequency = 12000});
  EXPECT_EQ(Read<int16_t>(*full, 1, 3), (std::vector<int16_t>{32767, 0, -32768}));
}

TEST(Source, ASweepRisesAndBeginsAnew) {
  const auto source = Make(
      kFloatMono, {.kind = SourceKind::kSweep, .level = 0, .from = 100, .to = 1000, .seconds = 1});
  const std::vector<float> sweep = Read<float>(*source, 0, 96000);
  const auto crossings = [&](size_t from, size_t to) {
    int count = 0;
    for (size_t i = from + 1; i < to; ++i) count += (sweep[i - 1] < 0) != (sweep[i] < 0);
    return count;
  };
  EXPECT_NEAR(crossings(0, 4800), 2 * 0.1 * 145, 1);
  EXPECT_NEAR(crossings(43200, 48000), 2 * 0.1 * 955, 1);
  EXPECT_EQ(std::memcmp(&sweep[0], &sweep[48000], 48000 * sizeof(float)), 0);
}

TEST(Source, NoiseFollowsFromItsSeedAlone) {
  const auto noise = [](uint64_t seed) {
    return Make(kInt16Stereo, {.kind = SourceKind::kNoise, .level = 0, .seed = seed});
  };
  const auto whole = Read<int16_t>(*noise(5), 0, 9600);
  const auto tail = Read<int16_t>(*noise(5), 2400, 4800);
  EXPECT_TRUE(std::equal(tail.begin(), tail.end(), whole.begin() + 4800));
  EXPECT_NE(Read<int16_t>(*noise(6), 0, 9600), whole);
  const double power = std::inner_product(whole.begin(), whole.end(), whole.begin(), 0.0);
  EXPECT_NEAR(power / 9600 / std::pow(32768, 2), 1.0 / 3, 0.02) << "even over the whole range";
  EXPECT_NE(whole[0], whole[1]) << "the channels differ";
}

TEST(Source, SilenceIsZeroInEveryEncoding) {
  EXPECT_EQ(Read<int32_t>(*Make(kInt32Mono, {}), 7, 2), (std::vector<int32_t>{0, 0}));
  EXPECT_EQ(Read<uint8_t>(*Make(kUlawMono, {}), 7, 1), (std::vector<uint8_t>{0xff}));
}

class WavSourceTest : public ::testing::Test {
 protected:
  /// The source that a scenario would get for the file "a.wav".
  std::unique_ptr<Source> Open(const KvoxTapFormat& format, bool repeat = false) {
    TapConfig tap{.format = format};
    tap.source = {
        .kind = SourceKind::kWav, .file = file_, .repeat = repeat, .where = "s.toml:3: k"};
    return MakeSource(tap, error_);
  }

  /// Writes raw samples, then reads them back through a tap of the same encoding.
  template <typename Sample>
  void ExpectExact(int subtype, const std::vector<Sample>& samples, const KvoxTapFormat& format) {
    WriteWav(file_, subtype, 1, samples);
    const auto read = Read<Sample>(*Open(format), 0, samples.size());
    EXPECT_EQ(std::memcmp(read.data(), samples.data(), samples.size() * sizeof(Sample)), 0);
  }

  TempDirectory directory_;
  const std::filesystem::path file_ = directory_ / "a.wav";
  std::string error_;
};

TEST_F(WavSourceTest, IsBitExactInTheFilesOwnEncoding) {
  std::vector<int16_t> shorts(65536);
  std::iota(shorts.begin(), shorts.end(), int16_t{-32768});
  ExpectExact(SF_FORMAT_PCM_16, shorts, kInt16Mono);
  ExpectExact<int32_t>(SF_FORMAT_PCM_32, {0, 1, -1, INT32_MAX, INT32_MIN, 0x12345678}, kInt32Mono);
  ExpectExact<float>(SF_FORMAT_FLOAT, {0.0f, -0.0f, 1e-30f, 1.5f, -1.0f}, kFloatMono);
  std::vector<uint8_t> codes(256);
  std::iota(codes.begin(), codes.end(), uint8_t{0});
  ExpectExact(SF_FORMAT_ULAW, codes, kUlawMono);
}

TEST_F(WavSourceTest, WidensNarrowsAndCopiesChannels) {
  WriteWav(file_, SF_FORMAT_PCM_24, 1, std::vector<int32_t>{0x12345600, -256});
  EXPECT_EQ(Read<int32_t>(*Open(kInt32Mono), 0, 2), (std::vector<int32_t>{0x12345600, -256}));
  EXPECT_EQ(Read<int16_t>(*Open(kInt16Stereo), 0, 4),
            (std::vector<int16_t>{0x1234, 0x1234, -1, -1}));
  EXPECT_EQ(Read<float>(*Open(kFloatMono), 1, 1), (std::vector<float>{-0x1p-23f}));

  WriteWav(file_, SF_FORMAT_FLOAT, 1, std::vector<float>{0.5f, 2.0f, -2.0f});
  EXPECT_EQ(Read<int16_t>(*Open(kInt16Mono), 0, 3), (std::vector<int16_t>{16384, 32767, -32768}));
  EXPECT_EQ(Read<uint8_t>(*Open(kUlawMono), 1, 2), (std::vector<uint8_t>{0x80, 0x00}));
}

TEST_F(WavSourceTest, EndsInSilenceOrBeginsAnew) {
  WriteWav(file_, SF_FORMAT_PCM_16, 1, std::vector<int16_t>{1, 2, 3});
  EXPECT_EQ(Read<int16_t>(*Open(kInt16Mono), 1, 4), (std::vector<int16_t>{2, 3, 0, 0}));
  EXPECT_EQ(Read<int16_t>(*Open(kInt16Mono), 9, 1), (std::vector<int16_t>{0}));
  EXPECT_EQ(Read<int16_t>(*Open(kInt16Mono, true), 5, 8),
            (std::vector<int16_t>{3, 1, 2, 3, 1, 2, 3, 1}));
}

TEST_F(WavSourceTest, FilesThatDoNotFitAreRefused) {
  const std::string head = "s.toml:3: k: " + file_.string();
  EXPECT_EQ(Open(kInt16Mono), nullptr);
  EXPECT_EQ(error_.find(head + " cannot be opened (No such"), 0u);
  WriteWav(file_, SF_FORMAT_PCM_16, 3, std::vector<int16_t>(6));
  EXPECT_EQ(Open(kInt16Stereo), nullptr);
  EXPECT_EQ(error_, head + " has 3 channels; expected 2, as the tap, or 1");
  WriteWav(file_, SF_FORMAT_PCM_16, 1, std::vector<int16_t>(6), 44100);
  EXPECT_EQ(Open(kInt16Stereo), nullptr);
  EXPECT_EQ(error_, head + " has 44100 Hz; expected 48000 Hz, the tap's rate");
  std::ofstream(file_) << "no sound at all";
  EXPECT_EQ(Open(kInt16Mono), nullptr);
  EXPECT_NE(error_.find("cannot be read"), std::string::npos);
}

TEST(Samples, RunsAndBack) {
  KvoxTapFormat format = kInt16Stereo;
  format.noninterleaved_samples = 2;
  const std::vector<int16_t> interleaved = {10, 20, 11, 21, 12, 22, 13, 23, 14, 24};
  std::vector<int16_t> runs(10);
  LayOut(format, std::as_bytes(std::span(interleaved)), std::as_writable_bytes(std::span(runs)));
  EXPECT_EQ(runs, (std::vector<int16_t>{10, 11, 20, 21, 12, 13, 22, 23, 14, 24}));
  std::vector<int16_t> back(10);
  Interleave(format, std::as_bytes(std::span(runs)), std::as_writable_bytes(std::span(back)));
  EXPECT_EQ(back, interleaved);
}

}  // namespace
}  // namespace kvox::sim
