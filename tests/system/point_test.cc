// Any point in one command: what is recorded, and that nothing of it stays behind.
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <numeric>

#include "tests/sim/wav_file.h"
#include "tests/system/system_fixture.h"

namespace kvox {
namespace {

using nlohmann::json;
using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr int kRamp = 480'000;  // 10 s

/// Whether there is a recording with more than a header.
bool HasAudio(const char* file) {
  std::error_code absent;
  const auto size = std::filesystem::file_size(file, absent);
  return !absent && size > 1000;
}

class PointTest : public SystemTest {
 protected:
  void SetUp() override { std::filesystem::current_path(directory_.path()); }
  void TearDown() override { std::filesystem::current_path("/"); }

  /// Two taps whose samples tell their position; 0 is in neither.
  void StartRamps() {
    std::vector<int32_t> ramp(kRamp);
    std::iota(ramp.begin(), ramp.end(), 1);
    sim::WriteWav(directory_ / "ramp.wav", SF_FORMAT_PCM_32, 1, ramp);
    std::ofstream(directory_ / "ramps.toml") << R"(
cores = [2]
tapouts = [0, 1, 2]
injects = [0]
[[tap]]
name = "left"
core = 2
bits = 32
source = { kind = "wav", file = "ramp.wav", repeat = true }
[[tap]]
name = "rght"
core = 2
bits = 32
source = { kind = "wav", file = "ramp.wav", repeat = true }
[[tap]]
name = "slow"
core = 2
rate = 16000
[[tap]]
name = "flot"
core = 2
format = "float"
source = { kind = "sine", level = -12 }
sink = { kind = "wav", file = "flot.wav" }
[[tap]]
name = "mulw"
core = 2
format = "sulaw"
source = { kind = "sine", level = -12 }
)";
    StartSimulator({"--scenario", directory_ / "ramps.toml"});
    StartDaemon();
    Do("wait buffer tapout2 --timeout 10");
  }

  void ExpectUntouched() {
    EXPECT_THAT(Do("processor list --short"), Not(HasSubstr("~")));
    EXPECT_EQ(Json("export")["state"], before_["state"]) << "as it was";
  }

  json before_;
};

/// Whether each sample is silence inside a gap, and elsewhere the one that belongs there.
void ExpectEverySampleInItsPlace(const std::vector<int32_t>& samples, size_t channel,
                                 size_t channels, const json& gaps) {
  std::vector<bool> silent(samples.size() / channels);
  std::vector<bool> unsure(silent.size());  // where the length is only estimated
  for (const json& gap : gaps) {
    if (gap["first_channel"] != channel) continue;
    const auto begin = gap["position_frames"].get<size_t>();
    const auto frames = gap["frames"].get<size_t>();
    ASSERT_LE(begin + frames, silent.size()) << gap;
    std::fill_n(silent.begin() + static_cast<ptrdiff_t>(begin), frames, true);
    if (gap["estimated"]) unsure[begin] = true;
  }
  std::optional<int64_t> origin;
  size_t wrong = 0;
  std::string first;
  for (size_t frame = 0; frame < silent.size(); ++frame) {
    const int64_t sample = samples[frame * channels + channel];
    if (unsure[frame]) origin.reset();
    if (silent[frame]) {
      wrong += sample == 0 ? 0U : 1U;
      continue;
    }
    const int64_t place = (sample - 1 - static_cast<int64_t>(frame)) % kRamp;
    const int64_t found = (place + kRamp) % kRamp;
    if (!origin) origin = found;
    const bool right = sample != 0 && found == *origin;
    if (!right && wrong == 0) {
      first = "first at frame " + std::to_string(frame) + ": " + std::to_string(sample) +
              ", off by " + std::to_string(found - *origin);
    }
    wrong += right ? 0U : 1U;
  }
  EXPECT_EQ(wrong, 0u) << "channel " << channel << ", " << first << "\n" << gaps.dump(1);
}

TEST_F(PointTest, UnderFaultsEverySampleIsInItsPlaceAndEveryGapListed) {
  StartRamps();
  const char* const longer = getenv("KVOX_RECORD_SECONDS");
  const std::string seconds = longer != nullptr ? longer : "6";
  for (const char* fault :
       {"packet-drop probability=0.02", "packet-duplicate probability=0.02 seed=2",
        "packet-late probability=0.01 seed=3", "packet-size probability=0.01 seed=4",
        "packet-junk probability=0.01 seed=5", "packet-magic probability=0.01 seed=6",
        "packet-burst probability=0.002 seed=7", "packet-early probability=0.01 seed=8"}) {
    Fault(std::string(fault) + " for=" + seconds);
  }
  before_ = Json("export");
  const auto recorder =
      Begin("record left.0 rght.0 both.wav --gaps gaps.json --seconds " + seconds);
  for (unsigned long s = 20; s <= std::stoul(seconds) + 20; s += 20) {
    if (WaitFor([&] { return recorder->Ended().has_value(); })) break;  // 20 s
    if (s % 60 == 0) Fault("restart gap=0.5");
  }
  EXPECT_EQ(recorder->Wait(), 7) << recorder->Err();
  const json file = json::parse(ReadText(directory_ / "gaps.json"))["files"][0];
  const std::vector<int32_t> samples = sim::ReadWav<int32_t>(directory_ / "both.wav");
  ASSERT_EQ(samples.size(), 2 * 48'000 * std::stoul(seconds));
  ASSERT_FALSE(file["gaps"].empty());
  for (const size_t channel : {0u, 1u}) {
    ExpectEverySampleInItsPlace(samples, channel, 2, file["gaps"]);
  }
  EXPECT_TRUE(std::ranges::any_of(file["gaps"], [](const json& gap) {
    return gap["cause"] == "coprocessor_skipped";
  })) << file["gaps"];
  // The file's own marks say the same.
  const ClientRun marks = Run(Words("verify both.wav"));
  EXPECT_EQ(marks.exit_status, 7) << marks.out;
  EXPECT_EQ(marks.out, Run(Words("verify both.wav --gaps gaps.json")).out);
  ExpectUntouched();
}

TEST_F(PointTest, ARecordingGoesOnAfterDaemonAndCoProcessorHaveRestarted) {
  StartRamps();
  const auto recorder = Begin("record left.0 on.wav --gaps gaps.json");
  const auto grows = [&] {
    const auto size = std::filesystem::file_size("on.wav");
    return WaitFor([&] { return std::filesystem::file_size("on.wav") > size + 100'000; });
  };
  ASSERT_TRUE(WaitFor([&] { return HasAudio("on.wav"); }));
  ASSERT_TRUE(grows());
  daemon_->Signal(SIGKILL);
  daemon_->Wait();
  StartDaemon();
  ASSERT_TRUE(grows()) << recorder->Err();
  Fault("restart gap=0.5");
  ASSERT_TRUE(DaemonLogs("Found 3 tap-out buffers", 2));
  ASSERT_TRUE(grows()) << recorder->Err();
  recorder->Signal(SIGINT);
  EXPECT_EQ(recorder->Wait(), 7) << recorder->Err();
  const json gaps = json::parse(ReadText(directory_ / "gaps.json"))["files"][0]["gaps"];
  ASSERT_GE(gaps.size(), 2u) << gaps;
  const auto caused_by = [&](const char* cause) {
    return std::ranges::count_if(gaps, [&](const json& gap) { return gap["cause"] == cause; });
  };
  EXPECT_EQ(caused_by("daemon_restarted"), 1) << gaps;
  EXPECT_EQ(caused_by("coprocessor_restarted"), 1) << gaps;
  ExpectEverySampleInItsPlace(sim::ReadWav<int32_t>(directory_ / "on.wav"), 0, 1, gaps);
  EXPECT_THAT(Do("processor list --short"), Not(HasSubstr("~")));
}

TEST_F(PointTest, HoweverARecorderEndsNothingOfItStays) {
  StartRamps();
  before_ = Json("export");
  // Two on one tap do not disturb each other, also when the one that has set it up ends first.
  const auto first = Begin("record left.0 first.wav --seconds 0.5");
  const auto second = Begin("record left.0 second.wav --seconds 1.5");
  for (const auto* recorder : {&first, &second}) {
    EXPECT_THAT((*recorder)->Wait(), AnyOf(0, 7)) << (*recorder)->Err();
  }
  EXPECT_EQ(sim::ReadWav<int32_t>(directory_ / "second.wav").size(), 72'000u);
  // Those that begin at once do not take the same buffer.
  const auto left = Begin("record left.0 left.wav --gaps left.json --seconds 0.5");
  const auto flot = Begin("record flot.0 flot_.wav --seconds 0.5");
  const auto mulw = Begin("record mulw.0 mulw.wav --seconds 0.5");
  for (const auto* recorder : {&left, &flot, &mulw}) {
    EXPECT_THAT((*recorder)->Wait(), AnyOf(0, 7)) << (*recorder)->Err();
  }
  ExpectEverySampleInItsPlace(sim::ReadWav<int32_t>("left.wav"), 0, 1,
                              json::parse(ReadText("left.json"))["files"][0]["gaps"]);
  SF_INFO info;
  sim::ReadWav<float>("flot_.wav", &info);
  EXPECT_EQ(info.format, SF_FORMAT_WAV | SF_FORMAT_FLOAT);
  sim::ReadWav<uint8_t>("mulw.wav", &info);
  EXPECT_EQ(info.format, SF_FORMAT_WAV | SF_FORMAT_ULAW);
  ExpectUntouched();
  // A pipe whose reader leaves.
  Process pipe("sh", {"-c", KVOXCTL_PROGRAM " record left.0 - | head -c 20000 | wc -c"},
               directory_ / "pipe");
  EXPECT_EQ(pipe.Wait(), 0);
  EXPECT_THAT(pipe.Out(), HasSubstr("20000"));
  ASSERT_TRUE(WaitFor([&] { return Do("processor list --short").find('~') == -1ul; }));
  // A full disk.
  const std::string full =
      "trap '' XFSZ; ulimit -f 100; exec " KVOXCTL_PROGRAM " record left.0 f.wav";
  Process disk("sh", {"-c", full}, directory_ / "disk");
  EXPECT_EQ(disk.Wait(), 74) << disk.Err();
  EXPECT_THAT(disk.Err(), HasSubstr("f.wav"));
  EXPECT_GT(sim::ReadWav<int32_t>("f.wav").size(), 12'000u) << "50 KiB in blocks, whole";
  ExpectUntouched();
  // A killed one leaves its relay; the next that makes one removes it.
  const auto killed = Begin("record left.0 killed.wav");
  ASSERT_TRUE(WaitFor([&] { return HasAudio("killed.wav"); }));
  killed->Signal(SIGKILL);
  killed->Wait();
  EXPECT_THAT(Do("processor list --short"), HasSubstr("~"));
  EXPECT_THAT(Do("meter rght.0 --once --seconds 0.2"), HasSubstr("dBFS"));
  ExpectUntouched();
}

/// A relay that is connected before the first packet takes the samples for integers.
TEST_F(PointTest, TheEncodingIsThatOfTheTapPoint) {
  StartRamps();
  before_ = Json("export");
  for (const char* tap : {"flot.0", "mulw.0"}) {
    const json level = Json(std::string("meter ") + tap + " --once --seconds 0.3")["levels"][0];
    EXPECT_NEAR(level["peak_dbfs"].get<double>(), -12, 0.3) << tap;
  }
  sim::WriteWav("tone.wav", SF_FORMAT_PCM_16, 1, std::vector<int16_t>(24'000, 8192));
  EXPECT_THAT(Run(Words("play tone.wav flot.0")).exit_status, AnyOf(0, 7));
  ExpectUntouched();
  simulator_->Signal(SIGTERM);
  simulator_->Wait();
  const std::vector<float> heard = sim::ReadWav<float>("flot.wav");
  ASSERT_GT(heard.size(), 20'000u);
  for (const float sample : heard) ASSERT_TRUE(sample == 0 || sample == 0.25f) << sample;
}

TEST_F(PointTest, WhatCannotBeRecordedIsRefusedAndNothingIsTouched) {
  StartRamps();
  before_ = Json("export");
  ExpectRefusal("record slow.0 x.wav", 1, "slow.0 has 16000 Hz, and relays take 48000 Hz only");
  ExpectRefusal("record left.1 x.wav", 4, "left.1");
  ExpectRefusal("record left.0 x.mp3", 2, ".mp3");
  ExpectRefusal("record left.0 left.0 x.wav", 2, "left.0");
  for (const char* tapout : {"tapout0", "tapout1", "tapout2"}) {
    const std::string id = std::string("use") + tapout[6];
    Do("processor new " + id + " pass");
    Do("connect " + id + " " + tapout + " none");
  }
  before_ = Json("export");
  ExpectRefusal("record left.0 x.wav", 1, "no tap-out buffer is free; tapout0: use0 reads it");
  EXPECT_FALSE(std::filesystem::exists("x.wav"));
  ExpectUntouched();
}

TEST_F(PointTest, AChainIsSetUpAndTakenDownByOneVerb) {
  StartBoth();
  Do("wait buffer inject3 --timeout 10");
  before_ = Json("export");
  EXPECT_THAT(Do("route genp.0 pass genp.0 --dry-run"), HasSubstr("to do: processor pass: make"));
  ExpectUntouched();
  Do("route genp.0 pass genp.0");
  EXPECT_TRUE(WaitFor([&] { return Figure("genp.0", "exact") > 10; }));
  const json path = Json("graph")["paths"][0];
  EXPECT_EQ(path["source"], "genp.0");
  EXPECT_EQ(path["inject"], "inject0");
  ExpectRefusal("route imic.0 more inject0 --type pass", 1, "inject0 is written by pass");
  EXPECT_THAT(Do("processor list --short"), Not(HasSubstr("more"))) << "undone";
  Do("unroute pass");
  ExpectUntouched();
}

TEST_F(PointTest, AFileOfAnotherShapeIsConvertedOrRefused) {
  std::ofstream(directory_ / "out.toml") << R"(
cores = [2]
tapouts = [0]
injects = [0]
[[tap]]
name = "sspk"
core = 2
channels = 2
sink = { kind = "wav", file = "heard.wav" }
)";
  StartSimulator({"--scenario", directory_ / "out.toml"});
  StartDaemon();
  Do("wait buffer tapout0 --timeout 10");
  before_ = Json("export");
  std::vector<int16_t> square(22'050);
  for (size_t i = 0; i < square.size(); ++i) square[i] = i % 100 < 50 ? 8000 : -8000;
  sim::WriteWav(directory_ / "tone.wav", SF_FORMAT_PCM_16, 1, square, 44'100);
  ExpectRefusal("play tone.wav sspk.0 --no-convert", 1, "44100 Hz");
  ExpectUntouched();
  EXPECT_THAT(Run(Words("play tone.wav sspk.0 --gain -6")).exit_status, AnyOf(0, 7));
  ExpectUntouched();
  simulator_->Signal(SIGTERM);
  simulator_->Wait();
  const std::vector<int16_t> heard = sim::ReadWav<int16_t>(directory_ / "heard.wav");
  const auto loud = [](int16_t sample) { return std::abs(sample) > 3000; };
  int frames = 0;  // of the first channel
  int turns = 0;
  for (size_t i = 0, last = 0; i < heard.size(); i += 2) {
    if (!loud(heard[i])) continue;
    EXPECT_EQ(heard[i], heard[i + 1]) << "both channels get it";
    turns += (heard[i] > 0) != (heard[last] > 0) ? 1 : 0;
    last = i;
    ++frames;
  }
  EXPECT_GT(frames, 12'000) << "of half a second, most: a busy machine may miss blocks";
  EXPECT_NEAR(1.0 * frames / turns, 50 * 48.0 / 44.1, 2.0) << "at the point's rate";
  EXPECT_LT(std::ranges::max(heard), 5500) << "with 6 dB less, and what the filter overshoots";
}

}  // namespace
}  // namespace kvox
