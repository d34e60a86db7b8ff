// The use cases, as far as clients have to know them: what they need of a board, and which of them
// report their state.
#pragma once

#include <cstdint>
#include <string_view>

#include "kvox/common/four_cc.h"

namespace kvox {

/// A tap point, and both a tap-out and an inject buffer of that number.
struct UseCaseNeed {
  std::string_view use_case;
  int32_t core;
  FourCc tap;
  int32_t index;
  int buffer;
};

inline constexpr UseCaseNeed kMicrophoneNeed = {"MIC_IN", 2, MakeFourCc("imic"), 0, 20};
inline constexpr UseCaseNeed kSpeakerNeed = {"SPEAKER_OUT", 2, MakeFourCc("sspk"), 0, 21};
inline constexpr UseCaseNeed kDownlinkNeed = {"AREL_TELE", 4, MakeFourCc("vpdl"), 0, 40};
inline constexpr UseCaseNeed kUplinkNeed = {"AREL_TELE", 4, MakeFourCc("vpul"), 1, 41};
inline constexpr UseCaseNeed kMediaNeed = {"AREL_MEDIA_PLAYBACK", 2, MakeFourCc("entr"), 5, 20};

inline constexpr UseCaseNeed kUseCaseNeeds[] = {kMicrophoneNeed, kSpeakerNeed, kDownlinkNeed,
                                                kUplinkNeed, kMediaNeed};

/// Use cases whose state the daemon reports; "" for the processor where none has to exist for that.
struct UseCaseReport {
  std::string_view use_case;
  std::string_view processor;
};
inline constexpr UseCaseReport kUseCaseReports[] = {
    {"AREL_TELE", ""}, {"PHONEBOOTH", ""}, {"HOTWORDAEC", "hwae"}};

}  // namespace kvox
