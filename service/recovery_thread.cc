#include "service/recovery_thread.h"

#include <system_error>
#include <utility>

#include "kvox/common/kvox_utils.h"
#include "kvox/common/log.h"

namespace kvox {
namespace {

constexpr auto kQuietTime = std::chrono::milliseconds(500);

}  // namespace

std::unique_ptr<Recovery> RecoveryThread::Start(Body body) {
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
  arrived_ = true;
  last_arrival_ = Clock::now();
  changed_.NotifyAll();
}

void RecoveryThread::RequestStop() {
  MutexLock lock(mutex_);
  stopping_ = true;
  changed_.NotifyAll();
}

bool RecoveryThread::Pause(std::chrono::milliseconds time) {
  const auto until = Clock::now() + time;
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
  arrived_ = false;
}

bool RecoveryThread::WaitForArrivals() {
  MutexLock lock(mutex_);
  for (;;) {
    if (stopping_) return false;
    if (!arrived_) {
      changed_.Wait(mutex_);
    } else if (Clock::now() >= last_arrival_ + kQuietTime) {
      return true;
    } else {
      changed_.WaitUntil(mutex_, last_arrival_ + kQuietTime);
    }
  }
}

}  // namespace kvox
