#include "service/use_cases.h"

#include <algorithm>
#include <utility>

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
  SwitchLocked(use_case, enable, OfDeadClient::kNo, result);
}

/// Telephony remembers whether it is on.
void UseCases::SwitchLocked(UseCase use_case, bool enable, OfDeadClient of_dead_client,
                            CommandResult* result) {
  const bool remembers = use_case == UseCase::AREL_TELE;
  const bool incomplete = IsIncomplete(use_case);
  if (remembers && !incomplete && telephony_enabled() == enable) {
    LogInfo(enable ? "Already enabled" : "Already disabled");
    return;
  }
  const bool dead = of_dead_client == OfDeadClient::kYes;
  if (dead) ForgetTaps(use_case);
  if (!enable && (incomplete || dead)) {
    RunAllSteps(StepsOf(use_case, enable), result);
  } else {
    RunSteps(StepsOf(use_case, enable), result);
  }
  const bool half_on = Failed(*result) && AnythingIsLeft(use_case);
  MutexLock lock(mutex_);
  if (half_on) {
    incomplete_.insert(use_case);
  } else {
    incomplete_.erase(use_case);
  }
  if (remembers && (dead || !Failed(*result))) telephony_enabled_ = enable;
}

void UseCases::RunSteps(std::span<const UseCaseStep> steps, CommandResult* result) {
  CommandResult ignored;
  for (const UseCaseStep& step : steps) {
    const bool counts = step.on_failure != UseCaseStep::OnFailure::kIgnore;
    RunStep(step, counts ? result : &ignored);
    if (step.on_failure == UseCaseStep::OnFailure::kStop && Failed(*result)) return;
  }
}

/// Whatever fails. The result is that of the first step that fails on something which is still set
/// up: a half that never came about cannot be switched off either.
void UseCases::RunAllSteps(std::span<const UseCaseStep> steps, CommandResult* result) {
  for (const UseCaseStep& step : steps) {
    CommandResult own;
    RunStep(step, &own);
    const bool matters = step.tap.tap != 0 ? taps_.IsSaved(step.tap)
                                           : own.status != IKvox::CommandStatus::INVALID_PROCESSOR;
    if (Failed(own) && (!matters || Failed(*result))) continue;
    if (Failed(own)) result->status = own.status;
    for (std::string& line : own.lines) result->lines.push_back(std::move(line));
  }
}

/// Whether there is something to switch off.
bool UseCases::AnythingIsLeft(UseCase use_case) const {
  const auto steps = StepsOf(use_case, false);
  return std::any_of(steps.begin(), steps.end(), [this](const UseCaseStep& step) {
    if (step.tap.tap != 0) return taps_.IsSaved(step.tap);
    return step.processor != 0 && inventory_.FindProcessor(step.processor) != nullptr;
  });
}

/// First of all, so that a recovery which is at work does not switch them on again.
void UseCases::ForgetTaps(UseCase use_case) {
  for (const UseCaseStep& step : StepsOf(use_case, false)) {
    if (step.tap.tap != 0) taps_.Forget(step.tap);
  }
}

bool UseCases::IsIncomplete(UseCase use_case) const {
  MutexLock lock(mutex_);
  return incomplete_.contains(use_case);
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

void UseCases::EndUseCaseOf(std::shared_ptr<const KvoxProcessor> relay) {
  const UseCase use_case = UseCaseOfRelay(relay->id());
  {
    MutexLock lock(mutex_);
    const auto [deaths, first] = deaths_.try_emplace(use_case);
    Relays& relays = deaths->second;
    if (std::find(relays.begin(), relays.end(), relay) == relays.end()) {
      relays.push_back(std::move(relay));
    }
    if (!first) return;
  }
  const auto end_all = [this, use_case] {
    while (const auto next = NextDeath(use_case)) {
      if (EndFor(*next, use_case) == 0) continue;
      LogError("%s: Failed to disable %s", "onCallbackDeath", next->id_text());
    }
  };
  if (threads_.Start("kvox-cleanup", end_all) == 0) end_all();
}

std::shared_ptr<const KvoxProcessor> UseCases::NextDeath(UseCase use_case) {
  MutexLock lock(mutex_);
  Relays& relays = deaths_.at(use_case);
  if (relays.empty()) {
    deaths_.erase(use_case);
    return nullptr;
  }
  auto relay = std::move(relays.front());
  relays.pop_front();
  return relay;
}

/// Returns 0, or a status of the commands.
int32_t UseCases::EndFor(const KvoxProcessor& relay, UseCase use_case) {
  if (use_case == UseCase::UNSPECIFIED) {
    return static_cast<int32_t>(IKvox::CommandStatus::INVALID_PROCESSOR);
  }
  const SwitchLock lock(*this, use_case);
  const bool replaced = inventory_.FindProcessor(relay.id()).get() != &relay;
  if (replaced || relay.HasReceiveAudioCallback()) return 0;
  CommandResult result;
  SwitchLocked(use_case, false, OfDeadClient::kYes, &result);
  return static_cast<int32_t>(result.status);
}

}  // namespace kvox
