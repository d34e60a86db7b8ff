// The listening socket of a registered service.
#pragma once

#include <event2/event.h>

#include <atomic>
#include <chrono>
#include <memory>

#include "kvox/common/unique_fd.h"
#include "platform/linux/service_port.h"

namespace kvox::binder {

/// Accepts on the reactor as long as it lives. Destroyed before the reactor ends, on another
/// thread.
class Listener {
 public:
  Listener(UniqueFd socket, std::shared_ptr<ServicePort> port);
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  /// False when the reactor cannot watch the socket.
  bool Start(event_base* base);

 private:
  void AcceptPending();
  void Pause(std::chrono::microseconds time);

  const UniqueFd socket_;  // non-blocking
  const std::shared_ptr<ServicePort> port_;
  std::atomic<bool> stopping_ = false;
  event* readable_ = nullptr;
  event* pause_ = nullptr;
};

}  // namespace kvox::binder
