#include "client/monitor/poller.h"

#include <unistd.h>

#include <cstdio>
#include <utility>

#include "kvox/common/kvox_utils.h"

namespace kvox::client {
namespace {

constexpr auto kLongestWaitAtEnd = std::chrono::seconds(2);

PollResult Poll(Daemon& daemon, Sampler& sampler) {
  const auto start = Poller::Clock::now();
  PollResult result;
  try {
    result.sample = sampler.Read(daemon);
  } catch (const Failure& failure) {
    result.error = failure.what();
    if (failure.status() != kRefused) {
      daemon.Disconnect();
      sampler.Forget();
    }
  } catch (const std::exception& error) {
    result.error = error.what();
  }
  result.took_ms = std::chrono::duration<double, std::milli>(Poller::Clock::now() - start).count();
  return result;
}

}  // namespace

Poller::Poller(Sampler::Wanted wanted) : sampler_(wanted), thread_([this] { Run(); }) {}

Poller::~Poller() {
  const auto deadline = Clock::now() + kLongestWaitAtEnd;
  MutexLock lock(mutex_);
  ending_ = true;
  changed_.NotifyAll();
  while (!ended_) {
    if (changed_.WaitUntil(mutex_, deadline) || ended_) continue;
    fputs(
        "kvoxctl: the last call was not answered within 2 s; see whether kvoxd hangs, and "
        "restart it\n",
        stderr);
    _exit(kTimedOut);
  }
  lock.Unlock();
  thread_.join();
}

void Poller::Start() {
  const MutexLock lock(mutex_);
  if (phase_ != Phase::kIdle) return;
  phase_ = Phase::kPolling;
  start_ = Clock::now();
  changed_.NotifyAll();
}

std::optional<PollResult> Poller::Take() {
  const MutexLock lock(mutex_);
  if (phase_ != Phase::kDone) return std::nullopt;
  phase_ = Phase::kIdle;
  done_.Clear();
  return std::move(result_);
}

Poller::Clock::duration Poller::InFlight() {
  const MutexLock lock(mutex_);
  return phase_ == Phase::kPolling ? Clock::now() - start_ : Clock::duration::zero();
}

bool Poller::WaitForWork() {
  MutexLock lock(mutex_);
  while (phase_ != Phase::kPolling && !ending_) changed_.Wait(mutex_);
  return !ending_;
}

void Poller::Run() {
  SetThreadName("poller");
  Daemon daemon(kNoLimit);  // the main thread limits how long a poll may take
  while (WaitForWork()) {
    PollResult result = Poll(daemon, sampler_);
    const MutexLock lock(mutex_);
    result_ = std::move(result);
    phase_ = Phase::kDone;
    done_.Signal();
  }
  try {
    sampler_.Restore(daemon);
  } catch (const std::exception&) {
    // Without a daemon there is nothing to restore.
  }
  const MutexLock lock(mutex_);
  ended_ = true;
  changed_.NotifyAll();
}

}  // namespace kvox::client
