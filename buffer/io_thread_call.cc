#include "buffer/io_thread_call.h"

#include <chrono>

namespace kvox {
namespace {

constexpr auto kTimeout = std::chrono::seconds(1);

}  // namespace

bool IoThreadCall::Run(const std::function<void()>& function) {
  const auto deadline = std::chrono::steady_clock::now() + kTimeout;
  MutexLock lock(mutex_);
  function_ = &function;
  wanted_.store(true, std::memory_order_relaxed);
  wake_.Signal();
  while (function_ != nullptr && !ended_ && changed_.WaitUntil(mutex_, deadline)) {
  }
  if (function_ != nullptr && ended_) {
    function();
    function_ = nullptr;
  }
  const bool done = function_ == nullptr;
  function_ = nullptr;
  return done;
}

void IoThreadCall::Serve() {
  MutexLock lock(mutex_);
  wanted_.store(false, std::memory_order_relaxed);
  if (function_ != nullptr) (*function_)();
  function_ = nullptr;
  changed_.NotifyAll();
}

void IoThreadCall::End() {
  MutexLock lock(mutex_);
  ended_ = true;
  changed_.NotifyAll();
}

}  // namespace kvox
