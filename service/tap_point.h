// One tap point of the co-processor.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <string>

#include "kvox/common/control_records.h"
#include "kvox/common/four_cc.h"

namespace kvox {

/// A tap point as a command names it. Only the low 8 bits of core and index are sent.
struct TapArguments {
  int core;
  FourCc tap;
  int index;

  TapAddress Address() const {
    return {.tap = tap, .index = static_cast<uint8_t>(index), .core = static_cast<uint8_t>(core)};
  }
};

/// The number of a buffer that is saved in 8 bits; -1 for none.
constexpr int BufferNumber(uint8_t id) {
  return id == kNoBuffer ? -1 : id;
}

inline constexpr uint32_t kBlockLengthNotSet = 0xFFFFFFFF;
inline constexpr int16_t kJitterBufferNotSet = -1;
inline constexpr uint8_t kDataFormatNotSet = 0xFF;

/// State of a tap point: what the co-processor reports, and what only the host keeps. By default
/// nothing is set and no buffer is bound.
struct KvoxTapPointState {
  TapInfoState info = {
      .block_length = kBlockLengthNotSet, .tapout_buffer = kNoBuffer, .inject_buffer = kNoBuffer};
  uint16_t noninterleaved_samples = 0;
  int16_t jitter_buffer = kJitterBufferNotSet;
  uint8_t data_format = kDataFormatNotSet;
  uint8_t reserved[3] = {};

  TapArguments Arguments() const { return {info.core, info.tap, info.index}; }

  /// Off and unbound: not worth saving.
  bool Idle() const {
    return info.enabled == 0 && info.tapout_buffer == kNoBuffer && info.inject_buffer == kNoBuffer;
  }
};
static_assert(sizeof(KvoxTapPointState) == 28);

/// The state that a tap-information reply describes; what the reply does not contain is 0.
KvoxTapPointState StateFromReply(const TapInfoState& info);

/// Orders tap points by tap id, then index, then core; an index of 128 or more sets all bits of the
/// upper half, so those sort last and share their keys across tap ids.
class TapKey {
 public:
  TapKey(uint8_t core, FourCc tap, uint8_t index)
      : value_(core | static_cast<uint64_t>(int64_t{static_cast<int32_t>(uint32_t{index} << 24)}) |
               uint64_t{tap} << 32) {}
  explicit TapKey(const TapAddress& address) : TapKey(address.core, address.tap, address.index) {}

  auto operator<=>(const TapKey&) const = default;

 private:
  uint64_t value_;
};

using TapMap = std::map<TapKey, KvoxTapPointState>;

/// "imic.0"
std::string TapName(const TapInfoState& info);

/// Request lines of the commands.
std::string TapInfoRequest(const TapArguments& tap);
std::string TapEnableRequest(const TapArguments& tap, bool enable);
std::string BlockLengthRequest(const TapArguments& tap, uint32_t frames);
std::string JitterBufferRequest(const TapArguments& tap, uint32_t size);
std::string BindingRequest(const TapArguments& tap, int tapout, int inject);

}  // namespace kvox
