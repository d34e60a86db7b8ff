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

using Field = KvoxProcessor::FormatField;

/// A kind that takes mono only.
class MonoProcessor : public KvoxProcessor {
 public:
  using KvoxProcessor::KvoxProcessor;
  BlockResult ProcessBlock(const Block&, OutputArea*) override { return {}; }

 protected:
  bool SetFormatField(Field field, uint32_t value) override {
    return (field != Field::kChannels || value == 1) && KvoxProcessor::SetFormatField(field, value);
  }
};

class KvoxProcessorTest : public ::testing::Test {
 protected:
  LogCapture log_;
  std::shared_ptr<KvoxProcessor> processor_ =
      std::make_shared<MonoProcessor>(MakeFourCc("art0"), MakeFourCc("arel"));
};

TEST_F(KvoxProcessorTest, SetFormatStopsAtTheFirstRefusal) {
  EXPECT_EQ(processor_->SetFormat({.sample_rate = 44100, .channels = 2, .bytes_per_sample = 2}),
            -1);
  EXPECT_EQ(log_.Take(), (std::vector<std::string>{"E Invalid format"}));
  EXPECT_EQ(processor_->format(Field::kSampleRate), 44100u);
  EXPECT_EQ(processor_->format(Field::kBitsPerSample), 32u);
}

TEST_F(KvoxProcessorTest, SetParameterChecksBeforeItStores) {
  const struct {
    Id id;
    Value value;
    int32_t status;
  } rows[] = {
      {Id::BLOCK_LENGTH, 960, 0},    {Id::BLOCK_LENGTH, 1000, 4},
      {Id::BLOCK_LENGTH, 24480, 4},  {Id::BLOCK_LENGTH, 24000, 0},
      {Id::BLOCK_LENGTH, 0, 4},      {Id::BLOCK_LENGTH, 480, 0},
      {Id::BLOCK_LENGTH, 960, 0},    {Id::BLOCK_LENGTH, -480, 4},
      {Id::BLOCK_LENGTH, 960.f, 4},  {Id::JITTER_BUFFER, 1000, 0},
      {Id::JITTER_BUFFER, 24001, 4}, {Id::JITTER_BUFFER, 24000, 0},
      {Id::JITTER_BUFFER, 480, 0},   {Id::JITTER_BUFFER, 479, 4},
      {Id::JITTER_BUFFER, 1001, 1},  {Id::PASSTHROUGH_MODE, -7, 0},
      {Id::TEST_MODE, 0, 0},         {Id::AUDIO_FORMAT, 1, 6},
      {static_cast<Id>(9), 1, 6},    {Id::TEST_MODE, std::vector<float>{1.0f}, 4},
  };
  for (const auto& row : rows) {
    const auto forward = [&](Id, uint32_t frames) { return frames != 1001; };
    EXPECT_EQ(processor_->SetParameter(row.id, 0, row.value, forward), row.status)
        << static_cast<int>(row.id) << " " << row.value.toString();
  }
  const auto get = [&](Id id) {
    Value value;
    EXPECT_EQ(processor_->GetParameter(id, 0, &value), 0);
    return value.get<Value::i>();
  };
  EXPECT_EQ(get(Id::BLOCK_LENGTH), 960);
  EXPECT_EQ(get(Id::JITTER_BUFFER), 1001) << "stored, though the tap point refused it";
  EXPECT_EQ(get(Id::PASSTHROUGH_MODE), 1);
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
  processor_->SetFormat({.sample_rate = 22050, .channels = 1});
  Value value;
  processor_->GetParameter(Id::AUDIO_FORMAT, 0, &value);
  EXPECT_EQ(value.get<Value::i>(), -1);
  EXPECT_EQ(processor_->GetParameter(static_cast<Id>(9), 0, &value), 3);
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

class NoWaiter : public IoWaiter {
  bool WaitWritable(int, uint64_t) override { return false; }
  bool WaitReadable(int, uint64_t) override { return false; }
  uint64_t NowNs() override { return 3'000'000; }
};

TEST(PassthruProcessor, SendsTheInputAndMeasuresWhileEnabled) {
  PassthruProcessor processor(MakeFourCc("pass"), PassthruProcessor::kType);
  processor.stats().SetBufferSize(4);
  NoWaiter waiter;
  const Block block = {.audio = {},
                       .format = {},
                       .arrived_ns = 0,
                       .begin_ns = 1'000'000,
                       .connected = true,
                       .state = nullptr,
                       .waiter = waiter};
  EXPECT_FALSE(processor.ProcessBlock(block, nullptr).output_is_input) << "disabled: silence";
  processor.Enable(true);
  EXPECT_TRUE(processor.ProcessBlock(block, nullptr).output_is_input);
  EXPECT_EQ(processor.stats().blocks(), 1u) << "a disabled processor measures nothing";
  float average = 0;
  std::vector<float> active_ms;
  processor.stats().GetMeasurements(average, active_ms);
  EXPECT_EQ(active_ms, std::vector<float>{2});
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
