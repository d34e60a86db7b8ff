// The one thread of a process that reads from connections and accepts them.
#pragma once

#include <event2/event.h>

#include <chrono>
#include <memory>
#include <thread>
#include <unordered_set>

#include "kvox/common/mutex.h"

namespace kvox::binder {

class Connection;

/// One per process. Any thread, except where noted.
class Reactor {
 public:
  static Reactor& Get();

  /// Starts the thread unless it runs. Null when the system refuses, which it logs.
  event_base* Start();
  /// Closes all connections and joins the thread. Not from the reactor.
  void Stop();

  /// Posts `task` to the pool after `time`, unless the reactor stops first.
  void PostLater(std::chrono::seconds time, void (*task)());

  /// Keeps a connection until it is forgotten.
  void Keep(std::shared_ptr<Connection> connection);
  void Forget(const std::shared_ptr<Connection>& connection);

 private:
  Reactor() = default;

  Mutex mutex_;
  event_base* base_ GUARDED_BY(mutex_) = nullptr;
  std::thread thread_ GUARDED_BY(mutex_);
  std::unordered_set<std::shared_ptr<Connection>> connections_ GUARDED_BY(mutex_);
};

}  // namespace kvox::binder
