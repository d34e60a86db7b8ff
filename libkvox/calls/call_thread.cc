#include "libkvox/calls/call_thread.h"

#include <thread>
#include <utility>

#include "kvox/common/mutex.h"

namespace kvox::client {

struct CallThread::Worker {
  Mutex mutex;
  CondVar changed;
  std::function<void()> call GUARDED_BY(mutex);
  bool done GUARDED_BY(mutex) = false;
  bool ending GUARDED_BY(mutex) = false;
};

CallThread::CallThread() = default;

/// The thread is not joined: a call that never returns must not keep its caller.
CallThread::~CallThread() {
  if (!worker_) return;
  MutexLock lock(worker_->mutex);
  worker_->ending = true;
  worker_->changed.NotifyAll();
}

bool CallThread::Run(std::function<void()> call, std::chrono::milliseconds wait) {
  const auto end = std::chrono::steady_clock::now() + wait;
  if (!worker_) {
    worker_ = std::make_shared<Worker>();
    std::thread([worker = worker_] { Serve(worker); }).detach();
  }
  MutexLock lock(worker_->mutex);
  worker_->call = std::move(call);
  worker_->done = false;
  worker_->changed.NotifyAll();
  while (!worker_->done) {
    if (worker_->changed.WaitUntil(worker_->mutex, end)) continue;
    if (worker_->done) break;
    worker_->ending = true;
    lock.Unlock();
    worker_.reset();
    return false;
  }
  return true;
}

void CallThread::Serve(const std::shared_ptr<Worker>& worker) {
  MutexLock lock(worker->mutex);
  for (;;) {
    while (!worker->call && !worker->ending) worker->changed.Wait(worker->mutex);
    if (!worker->call) return;
    auto call = std::exchange(worker->call, nullptr);
    lock.Unlock();
    call();
    call = nullptr;  // before anybody learns of it
    lock.Lock();
    worker->done = true;
    worker->changed.NotifyAll();
  }
}

}  // namespace kvox::client
