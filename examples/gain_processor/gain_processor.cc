#include "examples/gain_processor/gain_processor.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "kvox/common/fixed_text.h"

namespace kvox {
namespace {

using Value = IKvox::ParamValue;
using Sample = int16_t;

constexpr auto kRelaxed = std::memory_order_relaxed;
constexpr int32_t kBadValue = 4;  // SetParameter's statuses are fixed for all kinds

bool CanProcess(const KvoxTapFormat& format) {
  return format.bytes_per_sample == sizeof(Sample) &&
         Kvox::DataFormat{format.data_format} == Kvox::DataFormat::INT;
}

Sample Amplify(Sample sample, float gain) {
  constexpr float kLowest = std::numeric_limits<Sample>::min();
  constexpr float kHighest = std::numeric_limits<Sample>::max();
  return static_cast<Sample>(std::clamp(std::round(sample * gain), kLowest, kHighest));
}

/// A block is bytes: nothing promises that the samples in it are aligned.
void Amplify(std::span<const std::byte> in, std::byte* out, float gain) {
  for (size_t at = 0; at + sizeof(Sample) <= in.size(); at += sizeof(Sample)) {
    Sample sample;
    std::memcpy(&sample, in.data() + at, sizeof sample);
    sample = Amplify(sample, gain);
    std::memcpy(out + at, &sample, sizeof sample);
  }
}

}  // namespace

void GainProcessor::Info(std::vector<std::string>& lines) const {
  KvoxProcessor::Info(lines);
  lines.push_back(FormatText<64>("  Gain:    %g", static_cast<double>(gain_.load(kRelaxed))));
}

int32_t GainProcessor::Enable(bool enable) {
  KvoxProcessor::Enable(enable);
  SetEnabled(enable);
  return 0;
}

int32_t GainProcessor::SetBitsPerSample(uint32_t bits) {
  return bits == 8 * sizeof(Sample) ? KvoxProcessor::SetBitsPerSample(bits) : -1;
}

int32_t GainProcessor::SetDataFormat(Kvox::DataFormat format) {
  return format == Kvox::DataFormat::INT ? KvoxProcessor::SetDataFormat(format) : -1;
}

bool GainProcessor::isParameterReadOnly(IKvox::ParameterId id, int element) const {
  return id != kGain && KvoxProcessor::isParameterReadOnly(id, element);
}

int32_t GainProcessor::SetParameter(IKvox::ParameterId id, int element, const Value& value) {
  if (id != kGain) return KvoxProcessor::SetParameter(id, element, value);
  if (value.getTag() != Value::f) return kBadValue;
  const float gain = value.get<Value::f>();
  if (!(gain >= 0 && gain <= kMaxGain)) return kBadValue;  // also what is not a number
  gain_.store(gain, kRelaxed);
  return 0;
}

int32_t GainProcessor::GetParameter(IKvox::ParameterId id, int element, Value* value) const {
  if (id != kGain) return KvoxProcessor::GetParameter(id, element, value);
  *value = Value::make<Value::f>(gain_.load(kRelaxed));
  return 0;
}

BlockResult GainProcessor::ProcessPacket(const Block& block, OutputArea* out) {
  if (!IsEnabled()) return {};
  if (!CanProcess(block.format)) return {.status = -1};
  const float gain = gain_.load(kRelaxed);  // once a block: the whole block has one gain
  ProcessBlockBegin();
  const bool unchanged = gain == 1.0f;
  if (out != nullptr && !unchanged) {
    Amplify(block.audio.first(std::min(block.audio.size(), out->size())), out->Data(), gain);
  }
  ProcessBlockEnd();
  return {.output_is_input = unchanged};
}

}  // namespace kvox
