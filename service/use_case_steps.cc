#include "service/use_case_steps.h"

#include <algorithm>
#include <array>

#include "kvox/common/use_case_needs.h"
#include "processors/audio_relay_processor.h"
#include "processors/passthru_processor.h"

namespace kvox {
namespace {

using Step = UseCaseStep;
using Command = Step::Command;
using OnFailure = Step::OnFailure;
using UseCase = IKvox::UseCase;

constexpr FourCc kMicrophone = MakeFourCc("pas1");
constexpr FourCc kSpeaker = MakeFourCc("pas2");
constexpr FourCc kDownlink = MakeFourCc("art0");
constexpr FourCc kUplink = MakeFourCc("art1");
constexpr FourCc kMedia = MakeFourCc("armd");

consteval TapArguments TapOf(const UseCaseNeed& need) {
  return {need.core, need.tap, need.index};
}
constexpr TapArguments kMicrophoneTap = TapOf(kMicrophoneNeed);
constexpr TapArguments kSpeakerTap = TapOf(kSpeakerNeed);
constexpr TapArguments kDownlinkTap = TapOf(kDownlinkNeed);
constexpr TapArguments kUplinkTap = TapOf(kUplinkNeed);
constexpr TapArguments kMediaTap = TapOf(kMediaNeed);

constexpr int kMicrophoneBuffer = kMicrophoneNeed.buffer;
constexpr int kSpeakerBuffer = kSpeakerNeed.buffer;
constexpr int kDownlinkBuffer = kDownlinkNeed.buffer;
constexpr int kUplinkBuffer = kUplinkNeed.buffer;
constexpr int kMediaBuffer = kMediaNeed.buffer;

consteval Step New(FourCc processor, FourCc type) {
  return {.command = Command::kNewProcessor, .processor = processor, .type = type};
}
consteval Step Connect(FourCc processor, int buffer) {
  return {.command = Command::kConnect, .processor = processor, .buffer = buffer};
}
consteval Step Enable(FourCc processor) {
  return {.command = Command::kProcessorEnable, .processor = processor, .enable = true};
}
consteval Step Disable(FourCc processor, OnFailure on_failure) {
  return {.command = Command::kProcessorEnable, .processor = processor, .on_failure = on_failure};
}
consteval Step Delete(FourCc processor, OnFailure on_failure) {
  return {.command = Command::kDeleteProcessor, .processor = processor, .on_failure = on_failure};
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

constexpr Step kHotwordOn[] = {Enable(kHotwordProcessor)};
constexpr Step kHotwordOff[] = {Disable(kHotwordProcessor, OnFailure::kStop)};

constexpr Step kMicrophoneOn[] = {New(kMicrophone, PassthruProcessor::kType),
                                  Connect(kMicrophone, kMicrophoneBuffer),
                                  Enable(kMicrophone),
                                  Bind(kMicrophoneTap, kMicrophoneBuffer),
                                  Switch(kMicrophoneTap, true),
                                  Start(kMicrophoneBuffer)};
constexpr Step kMicrophoneOff[] = {Switch(kMicrophoneTap, false), Stop(kMicrophoneBuffer),
                                   Disable(kMicrophone, OnFailure::kReport),
                                   Delete(kMicrophone, OnFailure::kReport)};

constexpr Step kSpeakerOn[] = {New(kSpeaker, PassthruProcessor::kType),
                               Connect(kSpeaker, kSpeakerBuffer),
                               Enable(kSpeaker),
                               Bind(kSpeakerTap, kSpeakerBuffer),
                               Switch(kSpeakerTap, true),
                               Start(kSpeakerBuffer)};
constexpr Step kSpeakerOff[] = {Switch(kSpeakerTap, false), Stop(kSpeakerBuffer),
                                Disable(kSpeaker, OnFailure::kReport),
                                Delete(kSpeaker, OnFailure::kReport)};

constexpr Step kTelephonyOn[] = {New(kDownlink, AudioRelayProcessor::kType),
                                 New(kUplink, AudioRelayProcessor::kType),
                                 Connect(kDownlink, kDownlinkBuffer),
                                 Connect(kUplink, kUplinkBuffer),
                                 Enable(kDownlink),
                                 Enable(kUplink),
                                 Bind(kDownlinkTap, kDownlinkBuffer),
                                 Bind(kUplinkTap, kUplinkBuffer),
                                 TakeBlockLength(kDownlinkTap, kDownlink),
                                 TakeBlockLength(kUplinkTap, kUplink),
                                 Switch(kDownlinkTap, true),
                                 Switch(kUplinkTap, true),
                                 Start(kDownlinkBuffer),
                                 Start(kUplinkBuffer)};
constexpr Step kTelephonyOff[] = {Switch(kDownlinkTap, false),
                                  Switch(kUplinkTap, false),
                                  Unbind(kDownlinkTap),
                                  Unbind(kUplinkTap),
                                  Stop(kDownlinkBuffer),
                                  Stop(kUplinkBuffer),
                                  Disable(kDownlink, OnFailure::kIgnore),
                                  Disable(kUplink, OnFailure::kIgnore),
                                  Delete(kDownlink, OnFailure::kIgnore),
                                  Delete(kUplink, OnFailure::kIgnore)};

constexpr Step kMediaOn[] = {New(kMedia, AudioRelayProcessor::kType),
                             Connect(kMedia, kMediaBuffer),
                             Enable(kMedia),
                             Bind(kMediaTap, kMediaBuffer),
                             TakeBlockLength(kMediaTap, kMedia),
                             Switch(kMediaTap, true),
                             Start(kMediaBuffer)};
constexpr Step kMediaOff[] = {Switch(kMediaTap, false), Unbind(kMediaTap), Stop(kMediaBuffer),
                              Disable(kMedia, OnFailure::kIgnore),
                              Delete(kMedia, OnFailure::kIgnore)};

struct Row {
  UseCase use_case;
  std::span<const Step> on;
  std::span<const Step> off;
  std::optional<TapArguments> gain_tap;
};

constexpr Row kRows[] = {
    {UseCase::HOTWORDAEC, kHotwordOn, kHotwordOff, {}},
    {UseCase::MIC_IN, kMicrophoneOn, kMicrophoneOff, kMicrophoneTap},
    {UseCase::SPEAKER_OUT, kSpeakerOn, kSpeakerOff, kSpeakerTap},
    {UseCase::AREL_TELE, kTelephonyOn, kTelephonyOff, {}},
    {UseCase::AREL_MEDIA_PLAYBACK, kMediaOn, kMediaOff, kMediaTap},
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

std::optional<TapArguments> GainTapOf(UseCase use_case) {
  for (const Row& row : kRows) {
    if (row.use_case == use_case) return row.gain_tap;
  }
  return std::nullopt;
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
