// What the use cases need of a board: of each row the tap point, and both a tap-out and an inject
// buffer of that number.
#pragma once

#include <cstdint>
#include <string_view>

#include "kvox/common/four_cc.h"

namespace kvox {

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

}  // namespace kvox
