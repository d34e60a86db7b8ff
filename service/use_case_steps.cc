#include "service/use_case_steps.h"

#include <algorithm>
#include <array>

namespace kvox {
namespace {

using Step = UseCaseStep;
using Command = Step::Command;
using Outcome = Step::Outcome;
using UseCase = IKvox::UseCase;

constexpr FourCc kHotword = MakeFourCc("hwae");
constexpr FourCc kMicrophone = MakeFourCc("pas1");
constexpr FourCc kSpeaker = MakeFourCc("pas2");
constexpr FourCc kDownlink = MakeFourCc("art0");
constexpr FourCc kUplink = MakeFourCc("art1");
constexpr FourCc kMedia = MakeFourCc("armd");

constexpr TapArguments kMicrophoneTap = {2, MakeFourCc("imic"), 0};
constexpr TapArguments kSpeakerTap = {2, MakeFourCc("sspk"), 0};
constexpr TapArguments kDownlinkTap = {4, MakeFourCc("vpdl"), 0};
constexpr TapArguments kUplinkTap = {4, MakeFourCc("vpul"), 1};
constexpr TapArguments kMediaTap = {2, MakeFourCc("entr"), 5};

consteval Step New(FourCc processor, FourCc type) {
  return {.command = Command::kNewProcessor, .processor = processor, .type = type};
}
consteval Step Connect(FourCc processor, int buffer) {
  return {.command = Command::kConnect, .processor = processor, .buffer = buffer};
}
consteval Step Enable(FourCc processor) {
  return {.command = Command::kProcessorEnable, .processor = processor, .enable = true};
}
consteval Step Disable(FourCc processor, Outcome outcome) {
  return {.command = Command::kProcessorEnable, .processor = processor, .outcome = outcome};
}
consteval Step Delete(FourCc processor, Outcome outcome) {
  return {.command = Command::kDeleteProcessor, .processor = processor, .outcome = outcome};
}
consteval Step Bind(TapArguments tap, int buffer) {
  return {.command = Command::kConnectTap, .tap = tap, .buffer = buffer};
}
consteval Step Unbind(TapArguments tap) {
  return {.command = Command::kConnectTap, .tap = tap};
}
consteval Step TakeBlockLength(TapArguments tap, FourCc processor) {
  return {.command = Command::kTapSetBlockLength, .processor = processor, .tap = tap};
}
consteval Step Switch(TapArguments tap, bool enable) {
  return {.command = Command::kTapEnable, .tap = tap, .enable = enable};
}
consteval Step Start(int buffer) {
  return {.command = Command::kStartIo, .buffer = buffer};
}
consteval Step Stop(int buffer) {
  return {.command = Command::kStopIo, .buffer = buffer};
}

constexpr FourCc kPass = MakeFourCc("pass");
constexpr FourCc kRelay = MakeFourCc("arel");

constexpr Step kHotwordOn[] = {Enable(kHotword)};
constexpr Step kHotwordOff[] = {Disable(kHotword, Outcome::kStops)};

constexpr Step kMicrophoneOn[] = {New(kMicrophone, kPass),      Connect(kMicrophone, 20),
                                  Enable(kMicrophone),          Bind(kMicrophoneTap, 20),
                                  Switch(kMicrophoneTap, true), Start(20)};
constexpr Step kMicrophoneOff[] = {Switch(kMicrophoneTap, false), Stop(20),
                                   Disable(kMicrophone, Outcome::kCounts),
                                   Delete(kMicrophone, Outcome::kCounts)};

constexpr Step kSpeakerOn[] = {New(kSpeaker, kPass),  Connect(kSpeaker, 21),     Enable(kSpeaker),
                               Bind(kSpeakerTap, 21), Switch(kSpeakerTap, true), Start(21)};
constexpr Step kSpeakerOff[] = {Switch(kSpeakerTap, false), Stop(21),
                                Disable(kSpeaker, Outcome::kCounts),
                                Delete(kSpeaker, Outcome::kCounts)};

constexpr Step kTelephonyOn[] = {New(kDownlink, kRelay),
                                 New(kUplink, kRelay),
                                 Connect(kDownlink, 40),
                                 Connect(kUplink, 41),
                                 Enable(kDownlink),
                                 Enable(kUplink),
                                 Bind(kDownlinkTap, 40),
                                 Bind(kUplinkTap, 41),
                                 TakeBlockLength(kDownlinkTap, kDownlink),
                                 TakeBlockLength(kUplinkTap, kUplink),
                                 Switch(kDownlinkTap, true),
                                 Switch(kUplinkTap, true),
                                 Start(40),
                                 Start(41)};
constexpr Step kTelephonyOff[] = {Switch(kDownlinkTap, false),
                                  Switch(kUplinkTap, false),
                                  Unbind(kDownlinkTap),
                                  Unbind(kUplinkTap),
                                  Stop(40),
                                  Stop(41),
                                  Disable(kDownlink, Outcome::kIgnored),
                                  Disable(kUplink, Outcome::kIgnored),
                                  Delete(kDownlink, Outcome::kIgnored),
                                  Delete(kUplink, Outcome::kIgnored)};

constexpr Step kMediaOn[] = {New(kMedia, kRelay),
                             Connect(kMedia, 20),
                             Enable(kMedia),
                             Bind(kMediaTap, 20),
                             TakeBlockLength(kMediaTap, kMedia),
                             Switch(kMediaTap, true),
                             Start(20)};
constexpr Step kMediaOff[] = {Switch(kMediaTap, false), Unbind(kMediaTap), Stop(20),
                              Disable(kMedia, Outcome::kIgnored),
                              Delete(kMedia, Outcome::kIgnored)};

struct Row {
  UseCase use_case;
  std::span<const Step> on;
  std::span<const Step> off;
};

constexpr Row kRows[] = {
    {UseCase::HOTWORDAEC, kHotwordOn, kHotwordOff},
    {UseCase::MIC_IN, kMicrophoneOn, kMicrophoneOff},
    {UseCase::SPEAKER_OUT, kSpeakerOn, kSpeakerOff},
    {UseCase::AREL_TELE, kTelephonyOn, kTelephonyOff},
    {UseCase::AREL_MEDIA_PLAYBACK, kMediaOn, kMediaOff},
};

char ToUpper(char c) {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

}  // namespace

std::span<const UseCaseStep> StepsOf(UseCase use_case, bool enable) {
  for (const Row& row : kRows) {
    if (row.use_case == use_case) return enable ? row.on : row.off;
  }
  return {};
}

UseCase UseCaseOfRelay(FourCc relay) {
  if (relay == kDownlink || relay == kUplink) return UseCase::AREL_TELE;
  return relay == kMedia ? UseCase::AREL_MEDIA_PLAYBACK : UseCase::UNSPECIFIED;
}

UseCase stringToUseCase(const std::string& name) {
  std::string upper = name;
  std::transform(upper.begin(), upper.end(), upper.begin(), ToUpper);
  for (const UseCase use_case : ndk::enum_range<UseCase>()) {
    if (toString(use_case) == upper) return use_case;
  }
  return UseCase::UNSPECIFIED;
}

bool IsSupported(UseCase use_case) {
  return use_case >= UseCase::HOTWORDAEC && use_case <= UseCase::AREL_MEDIA_PLAYBACK;
}

}  // namespace kvox
