#include "client/monitor/poller.h"

#include <utility>

#include "client/calls/call_deadline.h"
#include "kvox/common/kvox_utils.h"

namespace kvox::client {
namespace {

constexpr auto kPatienceAtEnd = std::chrono::seconds(2);

Look LookAt(Daemon& daemon, Survey& survey) {
  const auto begin = Looker::Clock::now();
  Look look;
  try {
    look.sample = survey.Read(daemon);
  } catch (const Failure& failure) {
    look.why_not = failure.what();
    if (failure.status() != kRefused) {
      daemon.Forget();
      survey.Forget();
    }
  } catch (const std::exception& error) {
    look.why_not = error.what();
  }
  look.took_ms = std::chrono::duration<double, std::milli>(Looker::Clock::now() - begin).count();
  return look;
}

}  // namespace

Looker::Looker(Survey::Wanted wanted) : survey_(wanted), thread_([this] { Run(); }) {}

Looker::~Looker() {
  {
    const MutexLock lock(mutex_);
    ending_ = true;
    changed_.NotifyOne();
  }
  const CallDeadline deadline("the last call", kTimedOut, kPatienceAtEnd);
  thread_.join();
}

void Looker::Begin() {
  const MutexLock lock(mutex_);
  if (phase_ != Phase::kIdle) return;
  phase_ = Phase::kAsked;
  begin_ = Clock::now();
  changed_.NotifyOne();
}

std::optional<Look> Looker::Take() {
  const MutexLock lock(mutex_);
  if (phase_ != Phase::kDone) return std::nullopt;
  phase_ = Phase::kIdle;
  done_.Clear();
  return std::move(look_);
}

Looker::Clock::duration Looker::UnderWay() {
  const MutexLock lock(mutex_);
  return phase_ == Phase::kAsked ? Clock::now() - begin_ : Clock::duration::zero();
}

bool Looker::WaitForWork() {
  MutexLock lock(mutex_);
  while (phase_ != Phase::kAsked && !ending_) changed_.Wait(mutex_);
  return !ending_;
}

void Looker::Run() {
  SetThreadName("looker");
  Daemon daemon(kNoLimit);  // the main thread sees to how long a look may last
  while (WaitForWork()) {
    Look look = LookAt(daemon, survey_);
    const MutexLock lock(mutex_);
    look_ = std::move(look);
    phase_ = Phase::kDone;
    done_.Signal();
  }
  try {
    survey_.GiveBack(daemon);
  } catch (const std::exception&) {
    // Without a daemon there is nothing to give back.
  }
}

}  // namespace kvox::client
