// The parameters every processor has.

#include "kvox/common/command_tables.h"
#include "kvox/common/kvox_utils.h"
#include "processors/kvox_processor.h"

namespace kvox {
namespace {

using Id = IKvox::ParameterId;
using Value = IKvox::ParamValue;

enum ParameterStatus : int32_t {
  kStored = 0,
  kNotForwarded = 1,
  kUnknownParameter = 3,
  kBadValue = 4,
  kReadOnly = 6,
};

constexpr auto kRelaxed = std::memory_order_relaxed;

Value Int(int32_t number) {
  return Value::make<Value::i>(number);
}

}  // namespace

bool KvoxProcessor::isParameterReadOnly(Id id, int) const {
  switch (id) {
    case Id::PASSTHROUGH_MODE:
    case Id::TEST_MODE:
    case Id::BLOCK_LENGTH:
    case Id::JITTER_BUFFER:
      return false;
    default:
      return true;
  }
}

int32_t KvoxProcessor::SetParameter(Id id, int element, const Value& value) {
  if (isParameterReadOnly(id, element)) return kReadOnly;
  if (value.getTag() != Value::i) return kBadValue;
  const int32_t number = value.get<Value::i>();
  switch (id) {
    case Id::PASSTHROUGH_MODE:
      passthrough_mode_.store(number != 0, kRelaxed);
      return kStored;
    case Id::TEST_MODE:
      test_mode_.store(number != 0, kRelaxed);
      return kStored;
    case Id::BLOCK_LENGTH:
    case Id::JITTER_BUFFER:
      return StoreBlockSize(id, static_cast<uint32_t>(number));
    default:
      return kUnknownParameter;
  }
}

/// Both settings have the same range and go on to the tap point that feeds the input. The value
/// stays stored when the tap point refuses it.
int32_t KvoxProcessor::StoreBlockSize(Id id, uint32_t frames) {
  const bool is_length = id == Id::BLOCK_LENGTH;
  if (frames < kMinBlockLength || frames > kMaxBlockLength) return kBadValue;
  if (is_length && frames % kBlockLengthStep != 0) return kBadValue;
  (is_length ? block_length_ : jitter_buffer_).store(frames, kRelaxed);
  const std::shared_ptr<AudioEndpoint> source = input();
  if (source == nullptr || !source->is_tapout()) return kStored;
  const int32_t status =
      is_length ? source->ForwardBlockLength(frames) : source->ForwardJitterBuffer(frames);
  return status == 0 ? kStored : kNotForwarded;
}

int32_t KvoxProcessor::GetParameter(Id id, int element, Value* value) const {
  const auto as_int = [](uint32_t stored) { return Int(static_cast<int32_t>(stored)); };
  switch (id) {
    case Id::VERSION:
      *value = Int(0);
      return kStored;
    case Id::PASSTHROUGH_MODE:
      *value = Int(passthrough_mode_.load(kRelaxed));
      return kStored;
    case Id::TEST_MODE:
      *value = Int(test_mode_.load(kRelaxed));
      return kStored;
    case Id::BLOCK_LENGTH:
      *value = as_int(block_length_.load(kRelaxed));
      return kStored;
    case Id::AUDIO_FORMAT:
      *value = AudioFormatElement(element);
      return kStored;
    case Id::JITTER_BUFFER:
      *value = as_int(jitter_buffer_.load(kRelaxed));
      return kStored;
    default:
      return kUnknownParameter;
  }
}

Value KvoxProcessor::AudioFormatElement(int element) const {
  // Codes are signed 8-bit numbers here: -1 stands for "no code".
  const auto code = [](uint32_t number) { return Int(static_cast<int8_t>(number)); };
  const auto format = static_cast<uint8_t>(GetDataFormat());
  switch (element) {
    case 0:
      return code(SampleRateToEnum(GetSampleRate()));
    case 1:
      return code(BitsPerSampleToEnum(GetBitsPerSample()));
    case 2:
      return Int(format < kDataFormatCount ? format : -1);
    case 3:
      return Int(static_cast<int32_t>(GetChannels()));
    case 4:
      return Int(GetNonInterleavedSamples() < 2);
    case 5:
      return Int(!little_endian_.load(kRelaxed));
    case 6:
      return Int(static_cast<int32_t>(GetNonInterleavedSamples()));
    default:
      return Int(0);
  }
}

}  // namespace kvox
