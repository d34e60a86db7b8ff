#include "service/recovery_run.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "kvox/common/kvox_utils.h"
#include "kvox/common/log.h"

namespace kvox {
namespace {

constexpr auto kQuietTime = std::chrono::milliseconds(500);

}  // namespace

ArrivalWatch::TimePoint ArrivalWatch::Due() const {
  return last_ ? *last_ + kQuietTime : TimePoint::max();
}

std::unique_ptr<RecoveryRun> RecoveryThread::Start(Body body) {
  try {
    return std::make_unique<RecoveryThread>(std::move(body));
  } catch (const std::system_error& error) {
    LogError("cannot start the recovery's thread: %s; tried again when the next device arrives",
             error.what());
    return nullptr;
  }
}

RecoveryThread::RecoveryThread(Body body)
    : thread_([this, body = std::move(body)] {
        SetThreadName("kvox-recovery");
        body(*this);
      }) {}

RecoveryThread::~RecoveryThread() {
  RequestStop();
  thread_.join();
}

void RecoveryThread::NoteArrival() {
  MutexLock lock(mutex_);
  arrivals_.NoteArrival(Now());
  changed_.NotifyAll();
}

void RecoveryThread::NoteRights() {
  MutexLock lock(mutex_);
  arrivals_.NoteRights(Now());
  changed_.NotifyAll();
}

void RecoveryThread::NoteReady() {
  MutexLock lock(mutex_);
  arrivals_.NoteReady();
  changed_.NotifyAll();
}

void RecoveryThread::RequestStop() {
  MutexLock lock(mutex_);
  stopping_ = true;
  changed_.NotifyAll();
}

bool RecoveryThread::Pause(std::chrono::milliseconds time) {
  const auto until = Now() + time;
  MutexLock lock(mutex_);
  while (!stopping_ && changed_.WaitUntil(mutex_, until)) {
  }
  return !stopping_;
}

bool RecoveryThread::stopping() const {
  MutexLock lock(mutex_);
  return stopping_;
}

void RecoveryThread::ScanBegins() {
  MutexLock lock(mutex_);
  arrivals_.ScanBegins();
}

RecoveryClock::Wake RecoveryThread::WaitForFirstArrival(TimePoint until) {
  MutexLock lock(mutex_);
  for (;;) {
    if (stopping_) return Wake::kStopping;
    if (arrivals_.arrived()) return Wake::kArrivals;
    if (Now() >= until) return Wake::kTime;
    WaitForChange(until);
  }
}

void RecoveryThread::WaitForChange(TimePoint until) {
  if (until == TimePoint::max()) {
    changed_.Wait(mutex_);
  } else {
    changed_.WaitUntil(mutex_, until);
  }
}

RecoveryClock::Wake RecoveryThread::WaitForArrivals(TimePoint until) {
  MutexLock lock(mutex_);
  for (;;) {
    if (stopping_) return Wake::kStopping;
    const auto due = arrivals_.Due();
    const auto now = Now();
    if (now >= due) return Wake::kArrivals;
    if (now >= until) return Wake::kTime;
    WaitForChange(std::min(due, until));
  }
}

}  // namespace kvox
