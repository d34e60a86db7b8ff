#include "examples/gain_processor/gain_processor.h"

#include <cmath>

#include "tests/buffer/buffer_fixture.h"

namespace kvox {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using Samples = std::vector<int16_t>;
using Value = IKvox::ParamValue;

constexpr KvoxTapFormat kMono16 = {.channels = 1, .bytes_per_sample = 2};

/// Nothing here waits.
class NoWaiter : public IoWaiter {
  bool WaitWritable(int, uint64_t) override { return false; }
  bool WaitReadable(int, uint64_t) override { return false; }
  uint64_t NowNs() override { return 0; }
};

struct Outcome {
  BlockResult result;
  Samples samples;
};

class GainProcessorTest : public BufferFixture {
 protected:
  GainProcessorTest() { processor_->Enable(true); }

  int32_t SetGain(float gain) { return Set(GainProcessor::kGain, Value::make<Value::f>(gain)); }
  int32_t Set(IKvox::ParameterId id, const Value& value) {
    return processor_->SetParameter(id, 0, value,
                                    [](IKvox::ParameterId, uint32_t) { return true; });
  }

  /// The block stands at an odd address: nothing promises that its samples are aligned.
  Outcome Process(const Samples& samples, const KvoxTapFormat& format = kMono16) {
    const size_t size = samples.size() * sizeof(int16_t);
    Bytes area(size + 1);
    std::memcpy(area.data() + 1, samples.data(), size);
    NoWaiter waiter;
    Outcome outcome{.result = {}, .samples = Samples(samples.size(), 99)};
    OutputArea out(std::as_writable_bytes(std::span(outcome.samples)));
    outcome.result = processor_->ProcessBlock({.audio = std::span(area).subspan(1),
                                               .format = format,
                                               .arrived_ns = 0,
                                               .begin_ns = 0,
                                               .connected = true,
                                               .state = nullptr,
                                               .waiter = waiter},
                                              &out);
    if (!outcome.result.output_is_input) out.Data();
    return outcome;
  }

  uint32_t BlockCount() { return processor_->stats().blocks(); }

  const std::shared_ptr<GainProcessor> processor_ =
      std::make_shared<GainProcessor>(MakeFourCc("gai0"), GainProcessor::kType);
};

TEST_F(GainProcessorTest, AmplifiesAndLimitsEverySample) {
  SetGain(0.5f);
  EXPECT_THAT(Process({100, -100, 3, 0}).samples, ElementsAre(50, -50, 2, 0));
  SetGain(16);
  EXPECT_THAT(Process({100, 3000, -3000}).samples, ElementsAre(1600, 32767, -32768));
  EXPECT_EQ(BlockCount(), 2u);
}

TEST_F(GainProcessorTest, LetsTheInputGoOutAsItIsWhenNothingChanges) {
  const Outcome outcome = Process({1, 2, 3});
  EXPECT_TRUE(outcome.result.output_is_input);
  EXPECT_THAT(outcome.samples, Each(99)) << "the output area was not touched";
}

TEST_F(GainProcessorTest, IsSilentWhileDisabledAndForBlocksOfAnotherFormat) {
  SetGain(2);
  KvoxTapFormat wide = kMono16, floats = kMono16;
  wide.bytes_per_sample = 4;
  floats.data_format = static_cast<uint8_t>(Kvox::DataFormat::FLOAT);
  for (const KvoxTapFormat& format : {wide, floats}) {
    const Outcome outcome = Process({5, 6}, format);
    EXPECT_EQ(outcome.result.status, -1);
    EXPECT_THAT(outcome.samples, Each(0));
    EXPECT_EQ(processor_->SetFormat(format), -1);
  }
  EXPECT_EQ(processor_->SetFormat(kMono16), 0);
  processor_->Enable(false);
  EXPECT_EQ(Process({5, 6}).result.status, 0);
  EXPECT_THAT(Process({5, 6}).samples, Each(0));
  EXPECT_EQ(BlockCount(), 0u);
}

TEST_F(GainProcessorTest, TakesAGainInItsRangeAndLeavesOtherParametersToTheBase) {
  EXPECT_EQ(SetGain(3), 0);
  EXPECT_EQ(SetGain(-1), 4);
  EXPECT_EQ(SetGain(16.5f), 4);
  EXPECT_EQ(SetGain(std::nanf("")), 4);
  EXPECT_EQ(Set(GainProcessor::kGain, Value::make<Value::i>(1)), 4);
  Value value;
  EXPECT_EQ(processor_->GetParameter(GainProcessor::kGain, 0, &value), 0);
  EXPECT_EQ(value.get<Value::f>(), 3);

  using Id = IKvox::ParameterId;
  EXPECT_EQ(Set(Id::BLOCK_LENGTH, Value::make<Value::i>(960)), 0);
  EXPECT_EQ(Set(Id::VERSION, Value::make<Value::i>(1)), 6);
  std::vector<std::string> lines;
  processor_->Info("none", "none", lines);
  EXPECT_EQ(lines.back(), "  Gain:    3");
}

TEST_F(GainProcessorTest, WorksBetweenTwoBuffers) {
  const auto tapout = MakeBuffer("tapout0", 0, true);
  const auto inject = MakeBuffer("inject0", 0, false);
  SetGain(2);
  wiring_.Connect(tapout, {processor_}, inject);
  ASSERT_EQ(inject->Enable(true), 0);
  ASSERT_EQ(tapout->Enable(true), 0);
  const Samples heard = {7, -8, 0, 20000};
  Bytes packet = MakePacket(1, sizeof(int16_t) * 4, kMono16);
  std::memcpy(packet.data() + kPacketHeaderSize, heard.data(), packet.size() - kPacketHeaderSize);
  SendPacket(packet);
  const Bytes sent = ReceivePacket(packet.size());
  ASSERT_EQ(sent.size(), packet.size());
  Samples spoken(4);
  std::memcpy(spoken.data(), sent.data() + kPacketHeaderSize, sent.size() - kPacketHeaderSize);
  EXPECT_THAT(spoken, ElementsAre(14, -16, 0, 32767));
  tapout->Drop();
  inject->Drop();
}

}  // namespace
}  // namespace kvox
