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

bool CanProcess(const KvoxTapFormat& format) {
  return format.bytes_per_sample == sizeof(Sample) &&
         Kvox::DataFormat{format.data_format} == Kvox::DataFormat::INT;
}

Sample Amplify(Sample sample, float gain) {
  constexpr float kLowest = std::numeric_limits<Sample>::min();
  constexpr float kHighest = std::numeric_limits<Sample>::max();
  return static_cast<Sample>(std::clamp(std::round(sample * gain), kLowest, kHighest));
}

/// Copies each sample, since those in a block may be unaligned.
void Amplify(std::span<const std::byte> in, std::byte* out, float gain) {
  for (size_t at = 0; at + sizeof(Sample) <= in.size(); at += sizeof(Sample)) {
    Sample sample;
    std::memcpy(&sample, in.data() + at, sizeof sample);
    sample = Amplify(sample, gain);
    std::memcpy(out + at, &sample, sizeof sample);
  }
}

}  // namespace

void GainProcessor::Info(const std::string& input, const std::string& output,
                         std::vector<std::string>& lines) const {
  KvoxProcessor::Info(input, output, lines);
  lines.push_back(FormatText<64>("  Gain:    %g", static_cast<double>(gain_.load(kRelaxed))));
}

bool GainProcessor::SetFormatField(FormatField field, uint32_t value) {
  if (field == FormatField::kBitsPerSample && value != 8 * sizeof(Sample)) return false;
  if (field == FormatField::kDataFormat && Kvox::DataFormat(value) != Kvox::DataFormat::INT) {
    return false;
  }
  return KvoxProcessor::SetFormatField(field, value);
}

int32_t GainProcessor::SetParameter(IKvox::ParameterId id, int element, const Value& value,
                                    const TapForward& forward) {
  if (id != kGain) return KvoxProcessor::SetParameter(id, element, value, forward);
  if (value.getTag() != Value::f) return kBadParameterValue;
  const float gain = value.get<Value::f>();
  if (!(gain >= 0 && gain <= kMaxGain)) return kBadParameterValue;  // also for NaN
  gain_.store(gain, kRelaxed);
  return kParameterStored;
}

int32_t GainProcessor::GetParameter(IKvox::ParameterId id, int element, Value* value) const {
  if (id != kGain) return KvoxProcessor::GetParameter(id, element, value);
  *value = Value::make<Value::f>(gain_.load(kRelaxed));
  return kParameterStored;
}

BlockResult GainProcessor::ProcessBlock(const Block& block, OutputArea* out) {
  if (!IsEnabled()) return {};
  if (!CanProcess(block.format)) return {.status = -1};
  const float gain = gain_.load(kRelaxed);  // once a block: the whole block has one gain
  const MeasuredBlock measured(stats(), block);
  const bool unchanged = gain == 1.0f;
  if (out != nullptr && !unchanged) {
    Amplify(block.audio.first(std::min(block.audio.size(), out->size())), out->Data(), gain);
  }
  return {.output_is_input = unchanged};
}

}  // namespace kvox
