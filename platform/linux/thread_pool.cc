#include "platform/linux/thread_pool.h"

#include <android/binder_process.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <system_error>
#include <utility>

#include "kvox/common/kvox_utils.h"
#include "kvox/common/log.h"
#include "platform/platform.h"

namespace kvox::binder {
namespace {

/// What this thread serves.
struct Serving {
  const WorkOwner* owner = nullptr;  // of the request, if it serves one
  int waits = 0;
  bool lent = false;  // its place is another's
};
thread_local Serving serving;

}  // namespace

ThreadPool& ThreadPool::Get() {
  static ThreadPool* const pool = new ThreadPool;  // outlives every thread, also at exit
  return *pool;
}

bool ThreadPool::SetThreadCount(uint32_t count) {
  MutexLock lock(mutex_);
  if (started_) return false;
  thread_count_ = std::max(count, 1u);
  return true;
}

void ThreadPool::Start() {
  MutexLock lock(mutex_);
  if (std::exchange(started_, true)) return;
  try {
    while (threads_.size() < thread_count_) {
      threads_.push_back(StartThread("binder:" + std::to_string(threads_.size() + 1), [this] {
        MutexLock own_lock(mutex_);
        Run(Stay::kUntilStop);
      }));
    }
  } catch (const std::system_error& error) {
    LogError("binder: only %zu of %u pool threads could be started: %s", threads_.size(),
             thread_count_, error.what());
  }
}

size_t ThreadPool::places() const {
  return threads_.size() + joined_;
}

void ThreadPool::Stop() {
  MutexLock lock(mutex_);
  stopping_ = true;
  work_.NotifyAll();
  while (running_ > 0) idle_.Wait(mutex_);
  std::vector<std::thread> threads = std::exchange(threads_, {});
  std::unique_ptr<ThreadGroup> spare_threads = std::move(spare_threads_);
  lock.Unlock();
  for (std::thread& thread : threads) thread.join();
  spare_threads.reset();
  lock.Lock();
  while (!tasks_.empty()) RunTask();
  started_ = false;
  stopping_ = false;
}

void ThreadPool::Post(Task task) {
  MutexLock lock(mutex_);
  tasks_.push_back(std::move(task));
  work_.NotifyOne();
}

bool ThreadPool::Enqueue(RequestQueue& queue, Request request) {
  MutexLock lock(mutex_);
  queue.pending_bytes_ += request.parcel->data().size();
  queue.pending_.push_back(std::move(request));
  const size_t count = queue.pending_.size();
  if (count >= kPauseRequests || queue.pending_bytes_ >= kPauseRequestBytes) queue.full_ = true;
  Schedule(queue);
  return count <= kMaxRequests && queue.pending_bytes_ <= kMaxRequestBytes;
}

bool ThreadPool::Paused(const RequestQueue& queue) const {
  MutexLock lock(mutex_);
  return queue.full_ || queue.blocked_;
}

void ThreadPool::SetBlocked(RequestQueue& queue, bool blocked) {
  MutexLock lock(mutex_);
  queue.blocked_ = blocked;
  Schedule(queue);
}

bool ThreadPool::Blocked(const RequestQueue& queue) const {
  MutexLock lock(mutex_);
  return queue.blocked_;
}

std::deque<Request> ThreadPool::Clear(RequestQueue& queue) {
  MutexLock lock(mutex_);
  queue.pending_bytes_ = 0;
  return std::exchange(queue.pending_, {});
}

void ThreadPool::Schedule(RequestQueue& queue) {
  if (queue.scheduled_ || queue.blocked_ || FirstRunnable(queue) == queue.pending_.size()) return;
  queue.scheduled_ = true;
  ready_.Push(queue.owner_, queue.shared_from_this());
  work_.NotifyOne();
}

size_t ThreadPool::FirstRunnable(const RequestQueue& queue) {
  if (!queue.oneway_running_) return 0;
  const auto found = std::ranges::find_if_not(queue.pending_, &Request::oneway);
  return static_cast<size_t>(found - queue.pending_.begin());
}

void ThreadPool::Join() {
  MutexLock lock(mutex_);
  ++joined_;
  Run(Stay::kUntilStop);
  --joined_;
}

void ThreadPool::Run(Stay stay) {
  ++running_;
  while (!stopping_) {
    if (!tasks_.empty()) {
      RunTask();
    } else if (active_ < places() && ready_.HasNext()) {
      ServeNext();
    } else if (stay == Stay::kUntilStop) {
      work_.Wait(mutex_);
    } else {
      const Clock::time_point now = Clock::now();
      if (now >= spare_until_ && running_ > places() + waiting_) break;
      work_.WaitUntil(mutex_, now + kSpareThreadPause);
    }
  }
  if (--running_ == 0) idle_.NotifyAll();
}

void ThreadPool::SetWaiting(bool waits) {
  if (serving.owner == nullptr) return;
  serving.waits += waits ? 1 : -1;
  if (serving.waits != (waits ? 1 : 0)) return;
  MutexLock lock(mutex_);
  if (!waits) {
    if (!std::exchange(serving.lent, false)) return;
    ready_.SetLent(*serving.owner, false);
    --waiting_;
    spare_until_ = Clock::now() + kSpareThreadPause;
    ++active_;  // for a moment there may be one more than places
    return;
  }
  if (waiting_ == kMaxWaitingCalls || !HasThreadToSpare()) return;
  serving.lent = true;
  ready_.SetLent(*serving.owner, true);
  ++waiting_;
  --active_;
  work_.NotifyOne();
}

/// Starts one where there is none.
bool ThreadPool::HasThreadToSpare() {
  if (running_ > places() + waiting_) return true;
  if (!spare_threads_) spare_threads_ = std::make_unique<ThreadGroup>(kMaxWaitingCalls);
  return spare_threads_->Start("binder:spare", [this] {
    MutexLock lock(mutex_);
    Run(Stay::kWhileNeeded);
  }) != 0;
}

void ThreadPool::RunTask() {
  Task task = std::move(tasks_.front());
  tasks_.pop_front();
  mutex_.Unlock();
  task();
  task = nullptr;  // may hold the last reference to anything
  mutex_.Lock();
}

void ThreadPool::ServeNext() {
  const bool last_thread = places() > 1 && active_ + 1 == places();
  const std::shared_ptr<RequestQueue> queue = ready_.Pop(last_thread);
  queue->scheduled_ = false;
  const size_t index = FirstRunnable(*queue);
  if (queue->blocked_ || index == queue->pending_.size()) return ready_.Finish(queue->owner_);
  Request request = std::move(queue->pending_[index]);
  queue->pending_.erase(queue->pending_.begin() + static_cast<ptrdiff_t>(index));
  queue->pending_bytes_ -= request.parcel->data().size();
  const bool oneway = request.oneway();
  if (oneway) queue->oneway_running_ = true;
  const bool resumes = queue->full_ && queue->pending_.size() <= kPauseRequests / 2 &&
                       queue->pending_bytes_ <= kPauseRequestBytes / 2;
  if (resumes) queue->full_ = false;
  Schedule(*queue);  // the others go before this one's next request
  ++active_;
  mutex_.Unlock();
  if (resumes) queue->OnResume();
  serving.owner = &queue->owner_;
  queue->Serve(std::move(request));
  serving.owner = nullptr;
  mutex_.Lock();
  --active_;
  ready_.Finish(queue->owner_);
  if (!oneway) return;
  queue->oneway_running_ = false;
  Schedule(*queue);
}

std::thread StartThread(const std::string& name, std::function<void()> body) {
  // A new thread inherits the signal mask. Signals go to the program's own threads, except those of
  // the thread's own faults; this also keeps SIGPIPE away when libevent writes to a dead peer.
  sigset_t all;
  sigset_t previous;
  sigfillset(&all);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) sigdelset(&all, fault);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  struct Restore {
    const sigset_t& mask;
    ~Restore() { pthread_sigmask(SIG_SETMASK, &mask, nullptr); }
  } restore{previous};
  return std::thread([name, body = std::move(body)] {
    SetThreadName(name.c_str());
    body();
  });
}

}  // namespace kvox::binder

bool ABinderProcess_setThreadPoolMaxThreadCount(uint32_t numThreads) {
  return kvox::binder::ThreadPool::Get().SetThreadCount(numThreads);
}
void ABinderProcess_startThreadPool() {
  kvox::binder::ThreadPool::Get().Start();
}
void ABinderProcess_joinThreadPool() {
  kvox::binder::ThreadPool::Get().Join();
}

void kvox::CallWaits(bool waits) {
  binder::ThreadPool::Get().SetWaiting(waits);
}
