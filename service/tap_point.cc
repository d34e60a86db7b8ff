#include "service/tap_point.h"

namespace kvox {

KvoxTapPointState StateFromReply(const TapInfoState& info) {
  KvoxTapPointState state;
  state.info = info;
  state.jitter_buffer = 0;
  state.data_format = 0;
  return state;
}

KvoxTapPointState& EntryFor(const TapArguments& tap, TapMap& taps) {
  const TapAddress address = tap.Address();
  KvoxTapPointState& entry = taps[TapKey(address)];
  entry.info.tap = address.tap;
  entry.info.index = address.index;
  entry.info.core = address.core;
  return entry;
}

void EraseIfIdle(const TapArguments& tap, TapMap& taps) {
  const auto found = taps.find(TapKey(tap.Address()));
  if (found != taps.end() && found->second.Idle()) taps.erase(found);
}

std::string TapName(const TapInfoState& info) {
  return ToString(info.tap) + "." + std::to_string(info.index);
}

}  // namespace kvox
