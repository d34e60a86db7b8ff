#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "client/audio/gap_list.h"
#include "client/audio/level_meter.h"
#include "client/audio/play_source.h"
#include "client/audio/recording_file.h"
#include "client/command_line/command_line.h"
#include "client/output/json.h"
#include "tests/support/temp_directory.h"

namespace kvox::client {
namespace {

using ::testing::HasSubstr;

constexpr uint32_t kRate = 48'000;
constexpr uint64_t kMs = 1'000'000;
constexpr SoundFormat kMono = {.sample_rate = kRate, .channels = 1, .bits = 16};

/// Frames whose samples count up from `first`, the same in all channels.
Block Ramp(int16_t first, size_t frames, const SoundFormat& format = kMono) {
  Block block{.format = format};
  for (size_t i = 0; i < frames; ++i) {
    for (uint32_t channel = 0; channel < format.channels; ++channel) {
      std::byte sample[4] = {};
      const auto value = static_cast<int16_t>(first + static_cast<int16_t>(i));
      std::memcpy(&sample[format.bits / 8 - 2], &value, sizeof value);
      block.data.insert(block.data.end(), sample, sample + format.bits / 8);
    }
  }
  return block;
}

std::vector<int16_t> Samples(const std::vector<std::byte>& data) {
  std::vector<int16_t> samples(data.size() / 2);
  std::memcpy(samples.data(), data.data(), data.size());
  return samples;
}

TEST(TrackTest, MissingAudioIsSilenceOfItsLength) {
  Track track({"imic.0"});
  track.Add(0, Ramp(1, 3));
  Block block = Ramp(6, 2);
  block.missing = 2;
  block.cause = {"coprocessor_skipped", "the co-processor skipped packets"};
  track.Add(0, block);
  EXPECT_EQ(track.ready(), 7u);
  EXPECT_EQ(Samples(track.TakeFrames(4)), (std::vector<int16_t>{1, 2, 3, 0}));
  EXPECT_EQ(Samples(track.TakeFrames(99)), (std::vector<int16_t>{0, 6, 7}));
  const auto gaps = track.GapsUntil(4);
  ASSERT_EQ(gaps.size(), 1u);
  EXPECT_EQ(gaps[0].position, 3u);
  EXPECT_EQ(gaps[0].frames, 1u) << "the file ends there";
  EXPECT_EQ(track.missed_blocks(), 1u);
  EXPECT_THROW(track.Add(0, Ramp(1, 1, {.sample_rate = kRate, .channels = 2, .bits = 16})),
               Failure);
}

/// Begins are aligned by the co-processor's stamps, which are exact, where arrivals jitter.
TEST(TrackTest, SeveralStreamsGoSideBySide) {
  Track track({"one", "two"});
  const auto add = [&](size_t stream, int16_t first, uint64_t stamp_us, uint64_t arrived_ms,
                       const SoundFormat& format) {
    Block block = Ramp(first, 48, format);
    block.stamp = stamp_us;
    block.arrived_ns = arrived_ms * kMs;
    track.Add(stream, block);
  };
  const SoundFormat wide = {.sample_rate = kRate, .channels = 2, .bits = 32};
  add(0, 100, 5'000'000, 70, kMono);
  EXPECT_FALSE(track.format()) << "two has not begun";
  add(0, 148, 5'001'000, 71, kMono);
  add(1, 300, 5'000'500, 73, wide);
  add(1, 348, 5'001'500, 74, wide);
  ASSERT_TRUE(track.format());
  EXPECT_EQ(Describe(*track.format()), "48000 Hz, 3 channels, int32");
  EXPECT_EQ(track.ready(), 72u) << "from where both have begun, as far as both go";
  EXPECT_EQ(track.ChannelOf("two"), 1u);
  const auto data = track.TakeFrames(72);
  const auto at = [&](size_t frame, size_t channel) {
    int16_t value;
    std::memcpy(&value, &data[(frame * 3 + channel) * 4 + 2], sizeof value);
    return value;
  };
  EXPECT_EQ(at(0, 0), 124) << "two began half a millisecond later";
  EXPECT_EQ(at(0, 1), 300);
  EXPECT_EQ(at(0, 2), 300);
  EXPECT_EQ(at(71, 0), 195);
  EXPECT_EQ(at(71, 2), 371);
  // One that is over is silent; the other goes on.
  track.End(0);
  EXPECT_EQ(track.ready(), 24u);
  EXPECT_THROW(track.Add(1, Ramp(0, 1, kMono)), Failure);
}

TEST(TrackTest, AStreamThatStaysAwayDelaysTheOthersForAMinute) {
  Track track({"one", "two"});
  for (int i = 0; i < 2; ++i) {
    track.Add(0, Ramp(1, 480));
    track.Add(1, Ramp(1, 480));
  }
  for (int i = 0; i < 7000; ++i) track.Add(0, Ramp(1, 480));
  EXPECT_EQ(track.ready(), 7002u * 480 - 60 * kRate);
  track.TakeFrames(2000 * 480 / 2);
  while (track.ready() > 0) track.TakeFrames(track.ready());
  // What comes then takes the place that it has on the time line.
  Block late = Ramp(5, 480);
  late.missing = 7000 * 480;
  track.Add(1, late);
  track.Add(0, Ramp(5, 480));
  std::vector<int16_t> rest;
  while (track.ready() > 0) rest = Samples(track.TakeFrames(track.ready()));
  EXPECT_EQ(rest[rest.size() - 2], rest[rest.size() - 1]);
}

TEST(GapListTest, MarksAndJsonAreReadBack) {
  const TempDirectory directory;
  const std::string path = directory / "heard.wav";
  std::vector<ListedGap> gaps;
  for (uint64_t i = 0; i < 3; ++i) {
    gaps.push_back({.gap = {.point = i == 1 ? "2:imic.0" : "sspk.0",
                            .position = 10 + i * 100,
                            .frames = 7 + i,
                            .cause = {"coprocessor_late", "the co-processor: late", "evidence"}},
                    .first_channel = static_cast<uint32_t>(i),
                    .channels = 2});
  }
  RecordingFile file(path, KindOfFile(path, ""));
  EXPECT_TRUE(file.Write({.sample_rate = kRate, .channels = 4, .bits = 24},
                         Ramp(1, 401, {.sample_rate = kRate, .channels = 4, .bits = 24}).data));
  file.Close();
  AppendCues(path, MarksOf(gaps));
  const Json document = {{"files", Json::array({Json{{"gaps", RecordsOf(gaps)}}})}};
  for (const auto& read : {GapsOf(ReadCues(path)), ParseGaps(document.dump(), path)}) {
    ASSERT_EQ(read.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
      EXPECT_EQ(TextOf(read[i], kRate), TextOf(gaps[i], kRate));
      EXPECT_EQ(read[i].first_channel, gaps[i].first_channel);
      EXPECT_EQ(read[i].channels, 2u);
    }
  }
  EXPECT_EQ(SoundReader(path).frame_count(), 401u) << "the audio is as it was";
  // Damaged files have fewer marks, and harm nobody.
  std::ifstream in(path, std::ios::binary);
  const std::string whole((std::istreambuf_iterator<char>(in)), {});
  const size_t begin = whole.rfind("cue ");
  for (size_t at = begin; at < whole.size(); ++at) {
    for (const char value : {'\0', '\xFF'}) {
      std::string damaged = whole;
      damaged[at] = value;
      std::ofstream(path, std::ios::binary) << damaged;
      EXPECT_LE(GapsOf(ReadCues(path)).size(), 3u);
    }
    std::ofstream(path, std::ios::binary) << whole.substr(0, at);
    EXPECT_LE(ReadCues(path).size(), 3u);
  }
}

/// Each file's gap has the number of frames of its position.
Json ListOf(const std::vector<std::string>& names) {
  Json files = Json::array();
  for (const std::string& name : names) {
    const ListedGap gap = {.gap = {.point = "imic.0", .frames = files.size() + 1}, .channels = 1};
    files.push_back({{"file", name}, {"gaps", RecordsOf({gap})}});
  }
  return {{"files", files}};
}

TEST(GapListTest, TheFileIsFoundInItsList) {
  const auto found = [](const Json& list, const char* path) {
    return ParseGaps(list.dump(), path).at(0).gap.frames;
  };
  const Json each = ListOf({"x-imic.0.wav", "x-sspk.0.wav", "a/y.wav", "b/y.wav"});
  EXPECT_EQ(found(each, "x-sspk.0.wav"), 2u);
  EXPECT_EQ(found(each, "/elsewhere/x-sspk.0.wav"), 2u);
  EXPECT_EQ(found(each, "b/y.wav"), 4u);
  EXPECT_EQ(found(ListOf({"x.wav"}), "renamed.wav"), 1u);
  for (const char* const path : {"z.wav", "y.wav"}) {
    try {
      found(each, path);
      ADD_FAILURE() << path;
    } catch (const UsageError& error) {
      EXPECT_THAT(error.what(), HasSubstr("x-imic.0.wav, x-sspk.0.wav, a/y.wav, b/y.wav"));
    }
  }
}

TEST(GapListTest, AnythingElseIsRefused) {
  for (const char* const other : {"", "{}", "[1]", R"({"files": []})", R"({"files": {"a": 1}})",
                                  R"({"files": [{"gaps": null}]})", R"({"files": [{"gaps": 1}]})",
                                  R"({"files": [{"gaps": [{}]}]})", R"({"files": [1, 2]})"}) {
    EXPECT_THROW(ParseGaps(other, "x.wav"), UsageError) << other;
  }
  const struct {
    const char* key;
    std::vector<Json> values;
  } rows[] = {
      {"first_channel", {-1, 0.5, 1e99, "0", nullptr, 4294967296}},
      {"channels", {-1, 0, true, 4294967296}},
      {"position_frames", {-1, 1.5, 1e20}},
      {"frames", {-1, 1e300, nullptr}},
      {"point", {1}},
  };
  for (const auto& [key, values] : rows) {
    for (const Json& value : values) {
      Json list = ListOf({"x.wav"});
      list["files"][0]["gaps"][0][key] = value;
      try {
        ParseGaps(list.dump(), "x.wav");
        ADD_FAILURE() << key << " " << value;
      } catch (const UsageError& error) {
        EXPECT_THAT(error.what(), HasSubstr("--gaps: this is no list of gaps: "));
      }
    }
  }
}

TEST(GapListTest, TheLargestNumbersHaveATextToo) {
  const ListedGap gap = {.gap = {.point = "imic.0", .position = UINT64_MAX, .frames = UINT64_MAX},
                         .channels = 1};
  EXPECT_THAT(TextOf(gap, 1), HasSubstr("307445734561825856:"));
  EXPECT_THAT(TextOf({.gap = {.position = 61 * kRate, .frames = 480}}, kRate),
              HasSubstr("1:01.000  10 ms"));
}

/// What `kvoxctl record` says before it looks for a daemon; "" when it gets as far.
std::string RefusalOfRecord(const std::string& line) {
  std::istringstream stream("record " + line);
  const CommandLine read =
      ReadCommandLine({std::istream_iterator<std::string>(stream), {}}, "kvoxctl 1");
  Daemon daemon;
  try {
    read.verb->run({.in = read.in, .out = Printer(Format::kText, Color::kNever), .daemon = daemon});
  } catch (const UsageError& error) {
    return error.what();
  }
  return "";
}

TEST(RecordVerbTest, NoFileOverwritesAnother) {
  const TempDirectory directory;
  const std::string path = directory / "g.wav";
  const std::string link = directory / "link";
  const auto itself = HasSubstr("is the recording itself");
  EXPECT_THAT(RefusalOfRecord("imic.0 " + path + " --gaps " + path), itself);
  EXPECT_THAT(RefusalOfRecord("imic.0 " + path + " --gaps " + (directory / "." / "g.wav").string()),
              itself);
  EXPECT_THAT(RefusalOfRecord("imic.0 sspk.0 --each " + path + " --gaps " +
                              (directory / "g-sspk.0.wav").string()),
              itself);
  std::ofstream(path) << "old";
  std::filesystem::create_hard_link(path, link);
  EXPECT_THAT(RefusalOfRecord("imic.0 " + path + " --gaps " + link), itself);
  EXPECT_THAT(RefusalOfRecord("2:mic 2-mic " + path + " --each"),
              HasSubstr("--each: 2:mic and 2-mic would both be written to"));
}

TEST(RecordVerbTest, AFormatLetsTheFileHaveAnyName) {
  for (const char* const line :
       {"imic.0 take1 --format wav --gaps take1", "imic.0 tapout --format raw --gaps tapout",
        "imic.0 tapout0 --format wav --gaps imic.0.wav",
        "imic.0 2:sspk.0 --format flac --gaps imic.0.flac",
        "imic.0 --format flac --gaps imic.0.flac"}) {
    EXPECT_THAT(RefusalOfRecord(line), HasSubstr("is the recording itself")) << line;
  }
  EXPECT_THAT(RefusalOfRecord("imic.0 take1"), HasSubstr("FILE: 'take1' has no ending"));
  EXPECT_THAT(RefusalOfRecord("imic.0 take1"), HasSubstr("--format"));
}

TEST(RecordingFileTest, KindsGoByNameOrByFormat) {
  EXPECT_EQ(KindOfFile("a.wav", ""), FileKind::kWav);
  EXPECT_EQ(KindOfFile("a.wav", "raw"), FileKind::kRaw);
  EXPECT_EQ(KindOfFile("-", ""), FileKind::kWav);
  EXPECT_THROW(KindOfFile("a.mp3", ""), UsageError);
  EXPECT_THROW(RecordingFile("-", FileKind::kFlac), UsageError);
  const TempDirectory directory;
  for (const char* const name : {"a.flac", "a.raw"}) {
    const std::string path = directory / name;
    RecordingFile file(path, KindOfFile(path, ""));
    const Block block = Ramp(-100, 2000);
    EXPECT_TRUE(file.Write(kMono, block.data));
    file.Close();
    std::vector<std::byte> read(block.data.size());
    if (name == std::string("a.flac")) {
      SoundReader reader(path);
      reader.ConvertTo(kMono);
      EXPECT_EQ(reader.Read(read), read.size());
    } else {
      std::ifstream(path, std::ios::binary)
          .read(reinterpret_cast<char*>(read.data()), static_cast<std::streamsize>(read.size()));
    }
    EXPECT_EQ(read, block.data) << name;
  }
}

/// A tone of so many hertz, in a file of that rate.
std::string WriteTone(const TempDirectory& directory, uint32_t rate, uint32_t channels) {
  const SoundFormat format = {.sample_rate = rate, .channels = channels, .bits = 16};
  Block block{.format = format};
  for (uint32_t i = 0; i < rate / 2; ++i) {
    const auto value = static_cast<int16_t>(8000 * std::sin(2 * M_PI * 1000 * i / rate));
    const auto* const bytes = reinterpret_cast<const std::byte*>(&value);
    for (uint32_t c = 0; c < channels; ++c) block.data.insert(block.data.end(), bytes, bytes + 2);
  }
  const std::string path = directory / ("tone" + std::to_string(rate) + ".wav");
  SoundWriter writer(path, format);
  writer.Write(block.data);
  writer.Close();
  return path;
}

TEST(PlaySourceTest, ConvertsRateChannelsAndLevel) {
  const TempDirectory directory;
  const SoundFormat wanted = {
      .sample_rate = kRate, .channels = 2, .bits = 32, .encoding = Kvox::DataFormat::FLOAT};
  for (const uint32_t rate : {44'100u, 48'000u}) {
    PlaySource source(SoundReader(WriteTone(directory, rate, 1)), {.gain_db = -6.0206});
    source.ConvertTo(wanted);
    LevelMeter meter;
    Block block{.data = std::vector<std::byte>(480 * wanted.FrameSize()), .format = wanted};
    int blocks = 0;
    for (; source.Fill(block.data); ++blocks) {
      if (blocks > 5 && blocks < 45) meter.Add(block);
    }
    EXPECT_NEAR(blocks, 50, 1);
    for (const Level& level : meter.Take()) {
      EXPECT_NEAR(level.rms_dbfs, 20 * std::log10(4000 / 32768.0) - 3.01, 0.05) << rate;
    }
  }
  PlaySource strict(SoundReader(WriteTone(directory, 44'100, 1)), {.convert = false});
  EXPECT_THROW(strict.ConvertTo(wanted), SoundFileError);
  PlaySource looping(SoundReader(WriteTone(directory, 48'000, 2)), {.loop = true});
  looping.ConvertTo(wanted);
  std::vector<std::byte> second(kRate * wanted.FrameSize());
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(looping.Fill(second));
}

TEST(LevelMeterTest, ShowsPeaksHoldsAndClips) {
  LevelMeter meter;
  meter.Add(Ramp(32767, 1));
  meter.Add(Ramp(0, 1));
  auto levels = meter.Take();
  EXPECT_NEAR(levels[0].peak_dbfs, 0, 0.001);
  EXPECT_NEAR(levels[0].rms_dbfs, -3.01, 0.01);
  EXPECT_EQ(levels[0].clipped, 1u);
  for (int i = 0; i < 2; ++i) {
    for (int block = 0; block < 100; ++block) meter.Add(Ramp(16, 480));
    levels = meter.Take();
    EXPECT_LT(levels[0].peak_dbfs, -30);
    EXPECT_EQ(levels[0].hold_dbfs > -1, i == 0) << "for a second and a half";
  }
  const std::string bar =
      BarOf({.peak_dbfs = -15, .rms_dbfs = -30, .hold_dbfs = 0, .clipped = 3}, 8);
  EXPECT_THAT(bar, HasSubstr("[####-- |]"));
  EXPECT_THAT(bar, HasSubstr("CLIP 3"));
}

}  // namespace
}  // namespace kvox::client
