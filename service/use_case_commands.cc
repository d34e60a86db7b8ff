// Commands that switch named audio set-ups, and those that set gains.

#include "kvox/common/fixed_text.h"
#include "kvox/common/log.h"
#include "processors/phone_booth_processor.h"
#include "service/kvox_service.h"
#include "service/use_cases.h"

namespace kvox {
namespace {

using UseCase = IKvox::UseCase;

constexpr struct {
  UseCase use_case;
  TapArguments tap;
} kGainTaps[] = {
    {UseCase::MIC_IN, {2, MakeFourCc("imic"), 0}},
    {UseCase::SPEAKER_OUT, {2, MakeFourCc("sspk"), 0}},
    {UseCase::AREL_MEDIA_PLAYBACK, {2, MakeFourCc("entr"), 5}},
};

bool Failed(const CommandResult& result) {
  return result.status != CommandStatus::OK;
}

}  // namespace

KvoxService::Status KvoxService::ListSupportedUseCases(CommandResult* result) {
  std::string text = "Supported Kvox use cases: ";
  for (const UseCase use_case : ndk::enum_range<UseCase>()) {
    if (IsSupported(use_case)) text += toString(use_case) + " ";
  }
  print_command_status("ListSupportedUseCases", text, result);
  return Status::ok();
}

KvoxService::Status KvoxService::Enable(const std::string& name, bool enable,
                                        CommandResult* result) {
  const std::string request = std::string(enable ? "Enable" : "Disable") + " '" + name + "'";
  BeginCommand(request, result);
  const UseCase use_case = stringToUseCase(name);
  if (use_case != UseCase::UNSPECIFIED) return EnableUseCase(use_case, enable, result);
  const std::string refusal = request + ": Unknown use case";
  LogError("%s", refusal.c_str());
  PushLine(refusal, result);
  result->status = CommandStatus::INVALID_PARAMETER;
  return Status::ok();
}

KvoxService::Status KvoxService::IsEnabled(const std::string& name, CommandResult* result) {
  return IsUseCaseEnabled(stringToUseCase(name), result);
}

KvoxService::Status KvoxService::EnableUseCase(UseCase use_case, bool enable,
                                               CommandResult* result) {
  std::string text = std::string(enable ? "Enable" : "Disable") + " use case " + toString(use_case);
  BeginCommand(text, result);
  if (!IsSupported(use_case)) {
    result->status = CommandStatus::INVALID_PARAMETER;
    print_command_status("EnableUseCase", text, result);
    return Status::ok();
  }
  CommandResult steps;
  SwitchUseCase(use_case, enable, &steps);
  if (!Failed(steps)) {
    LogInfo("%s", (text + " done").c_str());
    result->status = CommandStatus::OK;
    return Status::ok();
  }
  if (!steps.lines.empty()) text += " encountered an error: " + steps.lines.back();
  result->status = CommandStatus::ERROR;
  print_command_status("EnableUseCase", text, result);
  return Status::ok();
}

/// One client at a time switches use cases, so that two cannot mix their steps; the others wait for
/// their turn. No lock is held meanwhile.
class KvoxService::UseCaseTurn {
 public:
  explicit UseCaseTurn(KvoxService& service) : service_(service) {
    MutexLock lock(service_.use_case_mutex_);
    while (service_.use_case_switching_) service_.use_case_switched_.Wait(service_.use_case_mutex_);
    service_.use_case_switching_ = true;
  }
  ~UseCaseTurn() {
    MutexLock lock(service_.use_case_mutex_);
    service_.use_case_switching_ = false;
    service_.use_case_switched_.NotifyAll();
  }
  UseCaseTurn(const UseCaseTurn&) = delete;
  UseCaseTurn& operator=(const UseCaseTurn&) = delete;

 private:
  KvoxService& service_;
};

void KvoxService::SwitchUseCase(UseCase use_case, bool enable, CommandResult* result) {
  if (use_case == UseCase::PHONEBOOTH) return PhoneBoothProcessor::EnableUseCase(enable, result);
  const UseCaseTurn turn(*this);
  SwitchInTurn(use_case, enable, result);
}

/// Telephony remembers whether it is on.
void KvoxService::SwitchInTurn(UseCase use_case, bool enable, CommandResult* result) {
  const bool remembers = use_case == UseCase::AREL_TELE;
  if (remembers) {
    MutexLock lock(use_case_mutex_);
    if (telephony_enabled_ == enable) {
      LogInfo(enable ? "Already enabled" : "Already disabled");
      return;
    }
  }
  RunSteps(StepsOf(use_case, enable), result);
  if (!remembers || Failed(*result)) return;
  MutexLock lock(use_case_mutex_);
  telephony_enabled_ = enable;
}

void KvoxService::RunSteps(std::span<const UseCaseStep> steps, CommandResult* result) {
  CommandResult ignored;
  for (const UseCaseStep& step : steps) {
    const bool heard = step.outcome != UseCaseStep::Outcome::kIgnored;
    RunStep(step, heard ? result : &ignored);
    if (step.outcome == UseCaseStep::Outcome::kStops && Failed(*result)) return;
  }
}

void KvoxService::RunStep(const UseCaseStep& step, CommandResult* result) {
  using Command = UseCaseStep::Command;
  const auto id = static_cast<int32_t>(step.processor);
  const auto [core, code, index] = step.tap;
  const auto tap = static_cast<int32_t>(code);
  const auto run = [&]() -> Status {
    switch (step.command) {
      case Command::kNewProcessor:
        return NewProcessorWithType(id, static_cast<int32_t>(step.type), result);
      case Command::kConnect:
        return Connect(id, step.buffer, step.buffer, result);
      case Command::kProcessorEnable:
        return ProcessorEnable(id, step.enable, result);
      case Command::kDeleteProcessor:
        return DeleteProcessor(id, result);
      case Command::kConnectTap:
        return ConnectTap(core, tap, index, step.buffer, step.buffer, result);
      case Command::kTapSetBlockLength: {
        const auto processor = FindProcessor(step.processor);
        const uint32_t frames = processor ? processor->GetBlockLength() : 0;
        return TapSetBlockLength(core, tap, index, static_cast<int32_t>(frames), result);
      }
      case Command::kTapEnable:
        return TapEnable(core, tap, index, step.enable, result);
      case Command::kStartIo:
        return StartIo(step.buffer, result);
      case Command::kStopIo:
        return StopIo(step.buffer, result);
    }
    return Status::ok();
  };
  static_cast<void>(run());
}

int32_t KvoxService::DisableUseCaseOf(const KvoxProcessor& relay) {
  const UseCase use_case = UseCaseOfRelay(relay.id());
  if (use_case == UseCase::UNSPECIFIED) {
    return static_cast<int32_t>(CommandStatus::INVALID_PROCESSOR);
  }
  const UseCaseTurn turn(*this);
  const bool replaced = FindProcessor(relay.id()).get() != &relay;
  if (replaced || relay.HasReceiveAudioCallback()) return 0;
  CommandResult result;
  SwitchInTurn(use_case, false, &result);
  return static_cast<int32_t>(result.status);
}

KvoxService::Status KvoxService::IsUseCaseEnabled(UseCase use_case, CommandResult* result) {
  BeginCommand(FormatText<64>("Get use case '%s' enabled state", toString(use_case).c_str()),
               result);
  std::string text;
  if (use_case == UseCase::PHONEBOOTH) {
    result->value = 0.0f;
  } else if (use_case == UseCase::AREL_TELE) {
    MutexLock lock(use_case_mutex_);
    result->value = telephony_enabled_ ? 1.0f : 0.0f;
  } else if (use_case == UseCase::HOTWORDAEC) {
    static_cast<void>(ProcessorIsEnabled(static_cast<int32_t>(MakeFourCc("hwae")), result));
  } else {
    text = "kvox use case state unknown";
    result->status = CommandStatus::INVALID_PARAMETER;
  }
  print_command_status("IsUseCaseEnabled", text, result);
  return Status::ok();
}

// Gains are the co-processor's own business; nothing is sent to it.
KvoxService::Status KvoxService::TapSetGain(int32_t core, int32_t tap, int32_t index, float gain,
                                            int32_t ramp_ms, CommandResult* result) {
  BeginCommand(FormatText<64>("Tap point [core %d tap %s.%d] set gain %f, ramp_ms %u", core,
                              ToString(static_cast<FourCc>(tap)).c_str(), index,
                              static_cast<double>(gain), static_cast<uint32_t>(ramp_ms)),
               result);
  result->status = CommandStatus::ERROR;
  print_command_status("TapSetGain", "Unavailable", result);
  return Status::ok();
}

KvoxService::Status KvoxService::UseCaseSetGain(const std::string& name, float gain,
                                                int32_t ramp_ms, CommandResult* result) {
  BeginCommand(FormatText<64>("Use case %s set gain %f, ramp_ms %u", name.c_str(),
                              static_cast<double>(gain), static_cast<uint32_t>(ramp_ms)),
               result);
  const UseCase use_case = stringToUseCase(name);
  for (const auto& row : kGainTaps) {
    if (row.use_case != use_case) continue;
    return TapSetGain(row.tap.core, static_cast<int32_t>(row.tap.tap), row.tap.index, gain, ramp_ms,
                      result);
  }
  if (use_case == UseCase::PHONEBOOTH) {
    PhoneBoothProcessor::EnableUseCase(true, result);
  } else {
    result->status = CommandStatus::INVALID_PARAMETER;
  }
  return Status::ok();
}

}  // namespace kvox
