#include "service/tap_point.h"

#include "kvox/common/fixed_text.h"

namespace kvox {
namespace {

std::string Describe(const TapArguments& tap) {
  return FormatText<64>("[core %d tap %s.%d]", tap.core, ToString(tap.tap).c_str(), tap.index);
}

}  // namespace

KvoxTapPointState StateFromReply(const TapInfoState& info) {
  KvoxTapPointState state;
  state.info = info;
  state.jitter_buffer = 0;
  state.data_format = 0;
  return state;
}

std::string TapName(const TapInfoState& info) {
  return ToString(info.tap) + "." + std::to_string(info.index);
}

std::string TapInfoRequest(const TapArguments& tap) {
  return FormatText<64>("Get tap point info %s", Describe(tap).c_str());
}

std::string TapEnableRequest(const TapArguments& tap, bool enable) {
  return FormatText<64>("%s tap point info %s", enable ? "Enable" : "Disable",
                        Describe(tap).c_str());
}

std::string BlockLengthRequest(const TapArguments& tap, uint32_t frames) {
  return FormatText<64>("Set tap point %s block length to %u", Describe(tap).c_str(), frames);
}

std::string JitterBufferRequest(const TapArguments& tap, uint32_t size) {
  return FormatText<64>("Set tap point %s jitter buffer to %u", Describe(tap).c_str(), size);
}

std::string BindingRequest(const TapArguments& tap, int tapout, int inject) {
  const std::string name = ToString(tap.tap);
  return FormatText<128>(
      "Connect [core %d tap %s.%d] --> tap-out buffer %d, inject buffer %d --> [core %d tap %s.%d]",
      tap.core, name.c_str(), tap.index, tapout, inject, tap.core, name.c_str(), tap.index);
}

}  // namespace kvox
