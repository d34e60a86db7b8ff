// Runs calls that may never return on a thread of their own, so that each wait has an end.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace kvox::client {

/// One thread at a time uses it.
class CallThread {
 public:
  CallThread();
  ~CallThread();
  CallThread(const CallThread&) = delete;
  CallThread& operator=(const CallThread&) = delete;

  /// Runs `call`, and returns true once it has returned. False when it has not done so within
  /// `wait`: it may still be running, with everything that it has captured, and the next call gets
  /// another thread.
  bool Run(std::function<void()> call, std::chrono::milliseconds wait);

 private:
  struct Worker;
  static void Serve(const std::shared_ptr<Worker>& worker);

  std::shared_ptr<Worker> worker_;
};

}  // namespace kvox::client
