#include "processors/kvox_processor.h"

#include <aidl/kvox/BnKvox.h>
#include <gtest/gtest.h>

#include <cstring>

#include "processors/passthru_processor.h"
#include "tests/support/log_capture.h"

namespace kvox {
namespace {

using Id = IKvox::ParameterId;
using Value = IKvox::ParamValue;

Value Int(int32_t i) {
  return Value::make<Value::i>(i);
}

class FakeEndpoint : public AudioEndpoint {
 public:
  FakeEndpoint(std::string name, bool is_tapout) : name_(std::move(name)), is_tapout_(is_tapout) {}
  const std::string& name() const override { return name_; }
  bool is_tapout() const override { return is_tapout_; }
  KvoxTapFormat RxFormat() const override { return {}; }
  int32_t UnregisterOutput(KvoxProcessor*) override { return ++unregistered, 0; }
  void UnregisterInput() override { ++unregistered; }
  void RefreshRoutes() override { ++refreshed; }
  int32_t ForwardBlockLength(uint32_t frames) override {
    block_length = frames;
    return forward_status;
  }
  int32_t ForwardJitterBuffer(uint32_t size) override {
    jitter_buffer = size;
    return forward_status;
  }

  int unregistered = 0;
  int refreshed = 0;
  uint32_t block_length = 0;
  uint32_t jitter_buffer = 0;
  int32_t forward_status = 0;

 private:
  const std::string name_;
  const bool is_tapout_;
};

/// A kind that takes mono only.
class MonoProcessor : public KvoxProcessor {
 public:
  using KvoxProcessor::KvoxProcessor;
  int32_t SetChannels(uint32_t channels) override {
    return channels == 1 ? KvoxProcessor::SetChannels(channels) : -1;
  }
};

class KvoxProcessorTest : public ::testing::Test {
 protected:
  LogCapture log_;
  std::shared_ptr<KvoxProcessor> processor_ =
      std::make_shared<MonoProcessor>(MakeFourCc("art0"), MakeFourCc("arel"));
  std::shared_ptr<FakeEndpoint> tapout_ = std::make_shared<FakeEndpoint>("tapout7", true);
  std::shared_ptr<FakeEndpoint> inject_ = std::make_shared<FakeEndpoint>("inject7", false);
};

TEST_F(KvoxProcessorTest, InfoNamesItsEndsOnlyWhileTheyExist) {
  std::vector<std::string> lines;
  processor_->Info(lines);
  EXPECT_EQ(lines, (std::vector<std::string>{"  Id:      art0", "  Type:    arel", "  Enabled: 0",
                                             "  Input:   none", "  Output:  none"}));
  processor_->SetInput(tapout_);
  processor_->SetOutput(inject_);
  inject_.reset();
  lines.clear();
  processor_->Info(lines);
  EXPECT_EQ(lines[3], "  Input:   tapout7");
  EXPECT_EQ(lines[4], "  Output:  none");
}

TEST_F(KvoxProcessorTest, DisconnectLeavesBothEndsAndSetOutputRefreshesTheFeed) {
  processor_->SetFeed(tapout_);
  processor_->SetOutput(inject_);
  EXPECT_EQ(tapout_->refreshed, 1);
  processor_->Disconnect();
  EXPECT_EQ(tapout_->unregistered, 1);
  EXPECT_EQ(inject_->unregistered, 1);
}

TEST_F(KvoxProcessorTest, SetFormatStopsAtTheFirstRefusal) {
  EXPECT_EQ(processor_->SetFormat({.sample_rate = 44100, .channels = 2, .bytes_per_sample = 2}),
            -1);
  EXPECT_EQ(log_.Take(), (std::vector<std::string>{"E Invalid format"}));
  EXPECT_EQ(processor_->GetSampleRate(), 44100u);
  EXPECT_EQ(processor_->GetBitsPerSample(), 32u);

  EXPECT_EQ(processor_->SetFormat({.sample_rate = 8000,
                                   .channels = 1,
                                   .bytes_per_sample = 2,
                                   .data_format = 1,
                                   .noninterleaved_samples = 480}),
            0);
  EXPECT_EQ(processor_->GetBitsPerSample(), 16u);
  EXPECT_EQ(processor_->GetDataFormat(), Kvox::DataFormat::FLOAT);
  EXPECT_EQ(processor_->GetNonInterleavedSamples(), 480u);
  EXPECT_EQ(processor_->GetBlockLength(), 4800u) << "not part of the format";
}

TEST_F(KvoxProcessorTest, SetParameterChecksBeforeItStores) {
  const struct {
    Id id;
    Value value;
    int32_t status;
  } rows[] = {
      {Id::BLOCK_LENGTH, Int(960), 0},
      {Id::BLOCK_LENGTH, Int(1000), 4},
      {Id::BLOCK_LENGTH, Int(479), 4},
      {Id::BLOCK_LENGTH, Int(24480), 4},
      {Id::BLOCK_LENGTH, Int(-480), 4},
      {Id::BLOCK_LENGTH, Value::make<Value::f>(960.f), 4},
      {Id::JITTER_BUFFER, Int(1000), 0},
      {Id::JITTER_BUFFER, Int(24001), 4},
      {Id::PASSTHROUGH_MODE, Int(-7), 0},
      {Id::TEST_MODE, Int(0), 0},
      {Id::VERSION, Int(1), 6},
      {Id::AUDIO_FORMAT, Int(1), 6},
      {Id::UNSPECIFIED, Int(1), 6},
      {static_cast<Id>(9), Int(1), 6},
      {Id::TEST_MODE, Value::make<Value::v>(std::vector<float>{1.0f}), 4},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(processor_->SetParameter(row.id, 0, row.value), row.status)
        << static_cast<int>(row.id) << " " << row.value.toString();
  }
  const auto get = [&](Id id) {
    Value value;
    EXPECT_EQ(processor_->GetParameter(id, 0, &value), 0);
    return value.get<Value::i>();
  };
  EXPECT_EQ(get(Id::BLOCK_LENGTH), 960);
  EXPECT_EQ(get(Id::JITTER_BUFFER), 1000);
  EXPECT_EQ(get(Id::PASSTHROUGH_MODE), 1);
}

TEST_F(KvoxProcessorTest, BlockSizesGoOnToTheTapAndStayWhenItRefuses) {
  processor_->SetInput(inject_);
  EXPECT_EQ(processor_->SetParameter(Id::BLOCK_LENGTH, 0, Int(480)), 0);
  EXPECT_EQ(inject_->block_length, 0u) << "an inject buffer has no tap that feeds it";
  processor_->SetInput(tapout_);
  EXPECT_EQ(processor_->SetParameter(Id::BLOCK_LENGTH, 0, Int(1440)), 0);
  EXPECT_EQ(tapout_->block_length, 1440u);
  tapout_->forward_status = 1;
  EXPECT_EQ(processor_->SetParameter(Id::JITTER_BUFFER, 0, Int(700)), 1);
  Value value;
  processor_->GetParameter(Id::JITTER_BUFFER, 0, &value);
  EXPECT_EQ(value.get<Value::i>(), 700);
}

TEST_F(KvoxProcessorTest, AudioFormatAnswersByElement) {
  processor_->SetFormat({.sample_rate = 44100,
                         .channels = 1,
                         .bytes_per_sample = 2,
                         .data_format = 9,
                         .noninterleaved_samples = 2});
  const int32_t expected[] = {4, 1, -1, 1, 0, 0, 2, 0};
  for (int element = -1; element < 8; ++element) {
    Value value;
    EXPECT_EQ(processor_->GetParameter(Id::AUDIO_FORMAT, element, &value), 0);
    EXPECT_EQ(value.get<Value::i>(), element < 0 ? 0 : expected[element]) << element;
  }
  processor_->SetSampleRate(22050);
  Value value;
  processor_->GetParameter(Id::AUDIO_FORMAT, 0, &value);
  EXPECT_EQ(value.get<Value::i>(), -1);
  EXPECT_EQ(processor_->GetParameter(static_cast<Id>(9), 0, &value), 3);
}

TEST_F(KvoxProcessorTest, StatisticsThatNoReplyCouldCarryAreRefused) {
  EXPECT_EQ(processor_->SetStatsMaxBufferSize(8), 0);
  EXPECT_EQ(processor_->SetStatsMaxBufferSize(1u << 18), -1);
  EXPECT_EQ(processor_->SetStatsMaxBufferSize(0xFFFFFFFF), -1);
  EXPECT_EQ(processor_->GetStats(nullptr), -1);
  processor_->ProcessBlock(nullptr, 0, nullptr, 0);
  IKvox::ProcessorStats stats;
  EXPECT_EQ(processor_->GetStats(&stats), 0);
  EXPECT_EQ(stats.blockCount, 1);
  EXPECT_EQ(stats.bufferEntries, 8);
  EXPECT_EQ(stats.measurements.size(), 1u);
}

class Callback : public IKvox::BnReceiveAudioCallback {
  ndk::ScopedAStatus ReceiveAudio(const IKvox::AudioPacket&) override {
    return ndk::ScopedAStatus::ok();
  }
};

TEST_F(KvoxProcessorTest, DeathOfAReplacedCallbackLeavesTheNewOne) {
  // An object of this very process cannot be watched; the callback stays registered all the same.
  auto callback = ndk::SharedRefBase::make<Callback>();
  const std::weak_ptr<Callback> watched = callback;
  processor_->RegisterReceiveAudioCallback(ndk::SharedRefBase::make<Callback>());
  EXPECT_EQ(log_.Count("RegisterReceiveAudioCallback: Failed to link death of callback, status="),
            1u);
  processor_->RegisterReceiveAudioCallback(callback);
  callback.reset();
  processor_->CallbackDied(1);
  EXPECT_FALSE(watched.expired());
  processor_->CallbackDied(2);
  EXPECT_TRUE(watched.expired());
  processor_->RegisterReceiveAudioCallback(nullptr);
}

TEST(PassthruProcessor, CopiesWhatFitsAndFillsTheRest) {
  PassthruProcessor processor(MakeFourCc("pass"), PassthruProcessor::kType);
  const char in[] = "abcdefgh";
  char out[] = "........";
  EXPECT_EQ(processor.ProcessBlock(in, 8, out, 8), 0);
  EXPECT_STREQ(out, "........") << "disabled: untouched";
  processor.Enable(true);
  EXPECT_EQ(processor.ProcessBlock(in, 8, out, 4), 0);
  EXPECT_STREQ(out, "abcd....");
  EXPECT_EQ(processor.ProcessBlock(in, 4, out, 8), 0);
  EXPECT_EQ(std::memcmp(out, "abcd\0\0\0\0", 8), 0);
  EXPECT_EQ(processor.ProcessBlock(in, 8, nullptr, 8), 0);
  IKvox::ProcessorStats stats;
  processor.GetStats(&stats);
  EXPECT_EQ(stats.blockCount, 3) << "a disabled processor measures nothing";
}

TEST(OutputArea, IsSilentWhereNobodyWrote) {
  std::array<std::byte, 4> area;
  area.fill(std::byte{7});
  OutputArea out(area);
  out.Data()[1] = std::byte{9};
  out.Data();
  EXPECT_EQ(area,
            (std::array<std::byte, 4>{std::byte{0}, std::byte{9}, std::byte{0}, std::byte{0}}));
}

}  // namespace
}  // namespace kvox
