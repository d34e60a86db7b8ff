#include "sim/audio/source.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <numeric>
#include <vector>

#include "kvox/common/kvox_packet.h"
#include "sim/audio/samples.h"
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

TEST_F(WavSourceTest, EndsInSilenceOrBeginsAnew) {
  WriteWav(file_, SF_FORMAT_PCM_16, 1, std::vector<int16_t>{1, 2, 3});
  EXPECT_EQ(Read<int16_t>(*Open(kInt16Mono), 1, 4), (std::vector<int16_t>{2, 3, 0, 0}));
  EXPECT_EQ(Read<int16_t>(*Open(kInt16Mono), 9, 1), (std::vector<int16_t>{0}));
  EXPECT_EQ(Read<int16_t>(*Open(kInt16Mono, true), 5, 8),
            (std::vector<int16_t>{3, 1, 2, 3, 1, 2, 3, 1}));
}

TEST_F(WavSourceTest, FilesThatDoNotFitAreRefused) {
  const std::string head = "s.toml:3: k: '" + file_.string() + "'";
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

}  // namespace
}  // namespace kvox::sim
