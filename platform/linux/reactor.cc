#include "platform/linux/reactor.h"

#include <event2/thread.h>

#include <system_error>
#include <utility>

#include "kvox/common/log.h"
#include "platform/linux/connection.h"
#include "platform/linux/limits.h"
#include "platform/linux/thread_pool.h"

namespace kvox::binder {
namespace {

/// A loop that polls for new events before it has handled all earlier ones.
event_base* NewBase() {
  const std::unique_ptr<event_config, void (*)(event_config*)> config(event_config_new(),
                                                                      event_config_free);
  if (config == nullptr) return nullptr;
  event_config_set_max_dispatch_interval(config.get(), nullptr, kMaxCallbacksAtOnce, 0);
  return event_base_new_with_config(config.get());
}

}  // namespace

Reactor& Reactor::Get() {
  static Reactor* const reactor = new Reactor;  // outlives every thread, also at exit
  return *reactor;
}

event_base* Reactor::Start() {
  MutexLock lock(mutex_);
  if (base_ != nullptr) return base_;
  evthread_use_pthreads();
  event_base* base = NewBase();
  if (base == nullptr) {
    LogError("binder: no event loop: the process is out of descriptors or memory");
    return nullptr;
  }
  try {
    thread_ =
        StartThread("binder:reactor", [base] { event_base_loop(base, EVLOOP_NO_EXIT_ON_EMPTY); });
  } catch (const std::system_error& error) {
    LogError("binder: no thread for the event loop: %s", error.what());
    event_base_free(base);
    return nullptr;
  }
  return base_ = base;
}

void Reactor::Stop() {
  MutexLock lock(mutex_);
  event_base* const base = std::exchange(base_, nullptr);
  std::thread thread = std::move(thread_);
  lock.Unlock();
  if (base == nullptr) return;
  // From within the loop: a break before the thread enters it would be lost.
  event_base_once(
      base, -1, EV_TIMEOUT,
      [](int, short, void* loop) { event_base_loopbreak(static_cast<event_base*>(loop)); }, base,
      nullptr);
  thread.join();
  lock.Lock();
  const auto connections = connections_;
  lock.Unlock();
  for (const auto& connection : connections) connection->Close();
  // libevent frees streams and closes their sockets in the loop.
  event_base_loop(base, EVLOOP_NONBLOCK);
  event_base_free(base);
}

void Reactor::PostLater(std::chrono::seconds time, void (*task)()) {
  const timeval delay{.tv_sec = time.count(), .tv_usec = 0};
  const auto post = [](int, short, void* argument) {
    ThreadPool::Get().Post(reinterpret_cast<void (*)()>(argument));
  };
  MutexLock lock(mutex_);
  if (base_ == nullptr) return;
  // Without memory it is skipped.
  event_base_once(base_, -1, EV_TIMEOUT, post, reinterpret_cast<void*>(task), &delay);
}

void Reactor::Keep(std::shared_ptr<Connection> connection) {
  MutexLock lock(mutex_);
  connections_.insert(std::move(connection));
}

void Reactor::Forget(const std::shared_ptr<Connection>& connection) {
  MutexLock lock(mutex_);
  connections_.erase(connection);
}

}  // namespace kvox::binder
