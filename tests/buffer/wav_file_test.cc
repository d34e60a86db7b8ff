#include "buffer/wav_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/buffer/recorded_file.h"
#include "tests/support/log_capture.h"

namespace kvox {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr KvoxTapFormat kStereo = {.sample_rate = 48000, .channels = 2, .bytes_per_sample = 2};

class WavFileTest : public ::testing::Test {
 protected:
  void Add(const KvoxTapFormat& format, const std::string& payload) {
    wav_->writeCaptureWav({.format = format}, std::as_bytes(std::span(payload)));
  }
  void StartAnew() {
    wav_.reset();
    file_.text.clear();
    file_.closed = false;
    wav_.emplace("tapout0", std::make_unique<RecordedFile>(file_));
    log_.Take();
  }
  /// The bytes after the header.
  std::string Data() const { return file_.text.substr(44); }

  LogCapture log_;
  FileScript file_;
  std::optional<WavFile> wav_{std::in_place, "tapout0", std::make_unique<RecordedFile>(file_)};
};

TEST_F(WavFileTest, WaitsForAPacketWithAUsableFormat) {
  const KvoxTapFormat unusable[] = {
      {.sample_rate = 0, .channels = 2, .bytes_per_sample = 2},
      {.sample_rate = 48000, .channels = 0, .bytes_per_sample = 2},
      {.sample_rate = 48000, .channels = 2, .bytes_per_sample = 3},
      {.sample_rate = 48000, .channels = 2, .bytes_per_sample = 2, .data_format = 3},
  };
  for (const KvoxTapFormat& format : unusable) Add(format, "skipped.");
  EXPECT_EQ(file_.text, "");
  EXPECT_THAT(log_.Take(), IsEmpty());
  const KvoxTapFormat sulaw = {
      .sample_rate = 8000, .channels = 1, .bytes_per_sample = 2, .data_format = 2};
  Add(sulaw, "");
  Add(sulaw, "taken.");
  wav_->endCaptureWav();
  wav_->endCaptureWav();
  EXPECT_EQ(log_.Count("I tapout0 endCaptureWav: Capture is not enabled"), 1u);
  EXPECT_EQ(file_.text, HeaderOf(8000, 1, 16, 3, WavFormat_t::kMulaw) + "taken.");
}

TEST_F(WavFileTest, AnotherFormatEndsItWithTheHeaderOfTheFirst) {
  const KvoxTapFormat others[] = {
      {.sample_rate = 16000, .channels = 2, .bytes_per_sample = 2},
      {.sample_rate = 48000, .channels = 1, .bytes_per_sample = 2},
      {.sample_rate = 48000, .channels = 2, .bytes_per_sample = 4},
      {.sample_rate = 48000, .channels = 2, .bytes_per_sample = 2, .data_format = 1},
      {.sample_rate = 48000, .channels = 2, .bytes_per_sample = 2, .noninterleaved_samples = 480},
  };
  for (const KvoxTapFormat& other : others) {
    StartAnew();
    Add(kStereo, "LLRR");
    Add(other, "LLRR");
    EXPECT_EQ(file_.text, HeaderOf(48000, 2, 16, 1, WavFormat_t::kPcm) + "LLRR");
    EXPECT_FALSE(wav_->on());
    EXPECT_THAT(log_.Take(), ElementsAre("E tapout0: Format changed during capture!",
                                         "I tapout0 endCaptureWav"));
  }
}

TEST_F(WavFileTest, WhatFillsNoGroupShowsWhatTheAreaHeldBefore) {
  KvoxTapFormat runs = kStereo;
  runs.data_format = 1;
  runs.noninterleaved_samples = 2;
  Add(runs, "L0L1R0R1l0l1");
  EXPECT_EQ(Data(), "L0R0L1R1" + std::string(4, '\0')) << "half a group behind a whole one";
  Add(runs, "A0A1");
  EXPECT_EQ(Data().substr(12), "L0R0") << "less than a group";
  Add(runs, "C0C1D0D1c0c1d0d1");
  Add(runs, "E0E1F0F1e0e1");
  EXPECT_EQ(Data().substr(32), "E0F0E1F1c0d0");
  wav_->endCaptureWav();
  EXPECT_EQ(file_.text.substr(0, 44), HeaderOf(48000, 2, 16, 3 + 1 + 4 + 3, WavFormat_t::kFloat));
}

TEST_F(WavFileTest, AFailedWriteEndsItBehindTheLastWholeSample) {
  const auto header = [](unsigned long samples) {
    return HeaderOf(48000, 2, 16, samples, WavFormat_t::kPcm);
  };
  const struct {
    std::deque<ssize_t> results;  // of the writes: header, first packet, second
    std::string text;
    int result;
  } rows[] = {
      {{-1}, "", -1},
      {{40, -1}, "", -1},
      {{40, 4, 1, 7, 3, -1}, header(2) + "LLRRllrr", -1},  // short ones continue
      {{44, 8, 5, -1}, header(3) + "LLRRllrrLLRR", -1},
      {{44, 8, 0}, header(2) + "LLRRllrr", 0},
  };
  for (const auto& row : rows) {
    StartAnew();
    file_.results = row.results;
    for (int packet = 0; packet < 3; ++packet) Add(kStereo, "LLRRllrr");
    EXPECT_TRUE(file_.closed);
    EXPECT_EQ(file_.text, row.text);
    EXPECT_THAT(log_.Take(),
                ElementsAre("E tapout0 writeCaptureWav: Error " + std::to_string(row.result)));
  }
  StartAnew();
  Add(kStereo, "LLRR");
  file_.start_fails = true;
  wav_->endCaptureWav();
  EXPECT_EQ(log_.Count("E tapout0 endCaptureWav: the header could not be written"), 1u);
}

TEST_F(WavFileTest, IsWholeWhileItGrows) {
  wav_->UpdateHeader();
  EXPECT_EQ(file_.text, "");
  Add(kStereo, "LLRR");
  wav_->UpdateHeader();
  EXPECT_EQ(file_.text, HeaderOf(48000, 2, 16, 1, WavFormat_t::kPcm) + "LLRR");
}

TEST_F(WavFileTest, EightBitLawIsAudioToo) {
  const KvoxTapFormat law = {.sample_rate = 8000,
                             .channels = 2,
                             .bytes_per_sample = 1,
                             .data_format = 2,
                             .noninterleaved_samples = 2};
  Add(law, "LlRr");
  wav_->endCaptureWav();
  EXPECT_EQ(file_.text, HeaderOf(8000, 2, 8, 2, WavFormat_t::kMulaw) + "LRlr");
}

}  // namespace
}  // namespace kvox
