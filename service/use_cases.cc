#include "service/use_cases.h"

#include "kvox/common/log.h"

namespace kvox {
namespace {

using CommandResult = IKvox::CommandResult;

bool Failed(const CommandResult& result) {
  return result.status != IKvox::CommandStatus::OK;
}

}  // namespace

/// One caller at a time switches a use case, so that two cannot mix its steps.
class UseCases::SwitchLock {
 public:
  SwitchLock(UseCases& use_cases, UseCase use_case) : use_cases_(use_cases), use_case_(use_case) {
    MutexLock lock(use_cases_.mutex_);
    while (!use_cases_.switching_.insert(use_case_).second) {
      use_cases_.switch_ended_.Wait(use_cases_.mutex_);
    }
  }
  ~SwitchLock() {
    MutexLock lock(use_cases_.mutex_);
    use_cases_.switching_.erase(use_case_);
    use_cases_.switch_ended_.NotifyAll();
  }
  SwitchLock(const SwitchLock&) = delete;
  SwitchLock& operator=(const SwitchLock&) = delete;

 private:
  UseCases& use_cases_;
  const UseCase use_case_;
};

void UseCases::Switch(UseCase use_case, bool enable, CommandResult* result) {
  const SwitchLock lock(*this, use_case);
  SwitchLocked(use_case, enable, result);
}

/// Telephony remembers whether it is on.
void UseCases::SwitchLocked(UseCase use_case, bool enable, CommandResult* result) {
  const bool remembers = use_case == UseCase::AREL_TELE;
  if (remembers && telephony_enabled() == enable) {
    LogInfo(enable ? "Already enabled" : "Already disabled");
    return;
  }
  CommandResult ignored;
  for (const UseCaseStep& step : StepsOf(use_case, enable)) {
    const bool counts = step.on_failure != UseCaseStep::OnFailure::kIgnore;
    RunStep(step, counts ? result : &ignored);
    if (step.on_failure == UseCaseStep::OnFailure::kStop && Failed(*result)) return;
  }
  if (!remembers || Failed(*result)) return;
  MutexLock lock(mutex_);
  telephony_enabled_ = enable;
}

bool UseCases::telephony_enabled() const {
  MutexLock lock(mutex_);
  return telephony_enabled_;
}

void UseCases::RunStep(const UseCaseStep& step, CommandResult* result) {
  using Command = UseCaseStep::Command;
  const auto id = static_cast<int32_t>(step.processor);
  const auto [core, code, index] = step.tap;
  const auto tap = static_cast<int32_t>(code);
  const auto run = [&] {
    switch (step.command) {
      case Command::kNewProcessor:
        return commands_.NewProcessorWithType(id, static_cast<int32_t>(step.type), result);
      case Command::kConnect:
        return commands_.Connect(id, step.buffer, step.buffer, result);
      case Command::kProcessorEnable:
        return commands_.ProcessorEnable(id, step.enable, result);
      case Command::kDeleteProcessor:
        return commands_.DeleteProcessor(id, result);
      case Command::kConnectTap:
        return commands_.ConnectTap(core, tap, index, step.buffer, step.buffer, result);
      case Command::kTapSetBlockLength: {
        const ProcessorPtr processor = inventory_.FindProcessor(step.processor);
        const uint32_t frames = processor ? processor->block_length() : 0;
        return commands_.TapSetBlockLength(core, tap, index, static_cast<int32_t>(frames), result);
      }
      case Command::kTapEnable:
        return commands_.TapEnable(core, tap, index, step.enable, result);
      case Command::kStartIo:
        return commands_.StartIo(step.buffer, result);
      case Command::kStopIo:
        return commands_.StopIo(step.buffer, result);
    }
    return ndk::ScopedAStatus::ok();
  };
  static_cast<void>(run());  // commands report in the result alone
}

int32_t UseCases::EndUseCaseOf(const KvoxProcessor& relay) {
  const UseCase use_case = UseCaseOfRelay(relay.id());
  if (use_case == UseCase::UNSPECIFIED) {
    return static_cast<int32_t>(IKvox::CommandStatus::INVALID_PROCESSOR);
  }
  const SwitchLock lock(*this, use_case);
  const bool replaced = inventory_.FindProcessor(relay.id()).get() != &relay;
  if (replaced || relay.HasReceiveAudioCallback()) return 0;
  CommandResult result;
  SwitchLocked(use_case, false, &result);
  return static_cast<int32_t>(result.status);
}

}  // namespace kvox
