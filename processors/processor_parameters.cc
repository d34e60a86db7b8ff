// The parameters that every processor has.

#include "kvox/common/command_tables.h"
#include "kvox/common/kvox_utils.h"
#include "processors/kvox_processor.h"

namespace kvox {
namespace {

using Id = IKvox::ParameterId;
using Value = IKvox::ParamValue;
using Field = KvoxProcessor::FormatField;

constexpr auto kRelaxed = std::memory_order_relaxed;

bool IsWritable(Id id) {
  return id == Id::PASSTHROUGH_MODE || id == Id::TEST_MODE || id == Id::BLOCK_LENGTH ||
         id == Id::JITTER_BUFFER;
}

}  // namespace

int32_t KvoxProcessor::SetParameter(Id id, int, const Value& value, const TapForward& forward) {
  if (!IsWritable(id)) return kReadOnlyParameter;
  if (value.getTag() != Value::i) return kBadParameterValue;
  const int32_t number = value.get<Value::i>();
  if (id == Id::PASSTHROUGH_MODE) {
    passthrough_mode_.store(number != 0, kRelaxed);
  } else if (id == Id::TEST_MODE) {
    test_mode_.store(number != 0, kRelaxed);
  } else {
    return StoreFrames(id, static_cast<uint32_t>(number), forward);
  }
  return kParameterStored;
}

/// The value stays stored when the tap point refuses it.
int32_t KvoxProcessor::StoreFrames(Id id, uint32_t frames, const TapForward& forward) {
  const bool is_length = id == Id::BLOCK_LENGTH;
  if (frames < kMinBlockLength || frames > kMaxBlockLength) return kBadParameterValue;
  if (is_length && frames % kBlockLengthStep != 0) return kBadParameterValue;
  (is_length ? block_length_ : jitter_buffer_).store(frames, kRelaxed);
  return forward(id, frames) ? kParameterStored : kParameterNotForwarded;
}

int32_t KvoxProcessor::GetParameter(Id id, int element, Value* value) const {
  int32_t number = 0;
  switch (id) {
    case Id::VERSION:
      break;
    case Id::PASSTHROUGH_MODE:
      number = passthrough_mode_.load(kRelaxed);
      break;
    case Id::TEST_MODE:
      number = test_mode_.load(kRelaxed);
      break;
    case Id::BLOCK_LENGTH:
      number = static_cast<int32_t>(block_length());
      break;
    case Id::AUDIO_FORMAT:
      number = AudioFormatElement(element);
      break;
    case Id::JITTER_BUFFER:
      number = static_cast<int32_t>(jitter_buffer_.load(kRelaxed));
      break;
    default:
      return kUnknownParameter;
  }
  *value = Value::make<Value::i>(number);
  return kParameterStored;
}

int32_t KvoxProcessor::AudioFormatElement(int element) const {
  constexpr int32_t kBigEndian = 0;  // every processor works on little-endian samples
  const uint32_t encoding = format(Field::kDataFormat);
  switch (element) {
    // Codes are signed 8-bit numbers here: -1 stands for "no code".
    case 0:
      return static_cast<int8_t>(SampleRateToEnum(format(Field::kSampleRate)));
    case 1:
      return static_cast<int8_t>(BitsPerSampleToEnum(format(Field::kBitsPerSample)));
    case 2:
      return encoding < kDataFormatCount ? static_cast<int32_t>(encoding) : -1;
    case 3:
      return static_cast<int32_t>(format(Field::kChannels));
    case 4:
      return format(Field::kNonInterleavedSamples) < 2 ? 1 : 0;
    case 5:
      return kBigEndian;
    case 6:
      return static_cast<int32_t>(format(Field::kNonInterleavedSamples));
    default:
      return 0;
  }
}

}  // namespace kvox
