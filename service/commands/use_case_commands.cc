// Commands that switch use cases and set their gains.

#include "kvox/common/fixed_text.h"
#include "kvox/common/log.h"
#include "processors/phone_booth_processor.h"
#include "service/kvox_service.h"
#include "service/use_case_steps.h"

namespace kvox {
namespace {

using UseCase = IKvox::UseCase;

void RefusePhoneBooth(CommandResult* result) {
  result->lines.push_back(PhoneBoothProcessor::kRefusal);
  result->status = CommandStatus::ERROR;
}

}  // namespace

KvoxService::Status KvoxService::ListSupportedUseCases(CommandResult* result) {
  return Run(result, [](Report& report) {
    std::string text = "Supported Kvox use cases: ";
    for (const UseCase use_case : ndk::enum_range<UseCase>()) {
      if (IsSupported(use_case)) text += toString(use_case) + " ";
    }
    report.End("ListSupportedUseCases", text);
  });
}

KvoxService::Status KvoxService::Enable(const std::string& name, bool enable,
                                        CommandResult* result) {
  const std::string request = std::string(enable ? "Enable" : "Disable") + " '" + name + "'";
  const UseCase use_case = stringToUseCase(name);
  Continue(result, [&](Report& report) {
    report.Begin(request);
    if (use_case != UseCase::UNSPECIFIED) return;
    const std::string refusal = request + ": Unknown use case";
    LogError("%s", refusal.c_str());
    report.Push(refusal);
    report.status = StatusCode::kInvalidParameter;
  });
  if (use_case == UseCase::UNSPECIFIED) return Status::ok();
  return EnableUseCase(use_case, enable, result);
}

KvoxService::Status KvoxService::IsEnabled(const std::string& name, CommandResult* result) {
  return IsUseCaseEnabled(stringToUseCase(name), result);
}

KvoxService::Status KvoxService::EnableUseCase(UseCase use_case, bool enable,
                                               CommandResult* result) {
  return RunChange(result, [&](Report& report) {
    std::string text =
        std::string(enable ? "Enable" : "Disable") + " use case " + toString(use_case);
    report.Begin(text);
    if (!IsSupported(use_case)) {
      return report.End("EnableUseCase", {StatusCode::kInvalidParameter, text});
    }
    CommandResult steps;
    if (use_case == UseCase::PHONEBOOTH) {
      RefusePhoneBooth(&steps);
    } else {
      use_cases_.Switch(use_case, enable, &steps);
    }
    if (steps.status == CommandStatus::OK) {
      LogInfo("%s", (text + " done").c_str());
      report.status = StatusCode::kOk;
      return;
    }
    if (!steps.lines.empty()) text += " encountered an error: " + steps.lines.back();
    report.End("EnableUseCase", {StatusCode::kError, text});
  });
}

KvoxService::Status KvoxService::IsUseCaseEnabled(UseCase use_case, CommandResult* result) {
  Continue(result, [&](Report& report) {
    report.Begin(FormatText<64>("Get use case '%s' enabled state", toString(use_case).c_str()));
  });
  if (use_case == UseCase::HOTWORDAEC) {
    static_cast<void>(ProcessorIsEnabled(static_cast<int32_t>(kHotwordProcessor), result));
  }
  return Run(result, [&](Report& report) {
    Outcome outcome;
    if (use_case == UseCase::PHONEBOOTH) {
      report.value = 0;
    } else if (use_case == UseCase::AREL_TELE) {
      report.value = use_cases_.telephony_enabled() ? 1.0f : 0.0f;
    } else if (use_case != UseCase::HOTWORDAEC) {
      outcome = {StatusCode::kInvalidParameter, "kvox use case state unknown"};
    }
    report.End("IsUseCaseEnabled", outcome);
  });
}

KvoxService::Status KvoxService::UseCaseSetGain(const std::string& name, float gain,
                                                int32_t ramp_ms, CommandResult* result) {
  Continue(result, [&](Report& report) {
    report.Begin(FormatText<64>("Use case %s set gain %f, ramp_ms %u", name.c_str(),
                                static_cast<double>(gain), static_cast<uint32_t>(ramp_ms)));
  });
  const UseCase use_case = stringToUseCase(name);
  if (const auto tap = GainTapOf(use_case)) {
    return TapSetGain(tap->core, static_cast<int32_t>(tap->tap), tap->index, gain, ramp_ms, result);
  }
  if (use_case == UseCase::PHONEBOOTH) {
    RefusePhoneBooth(result);
  } else {
    result->status = CommandStatus::INVALID_PARAMETER;
  }
  return Status::ok();
}

}  // namespace kvox
