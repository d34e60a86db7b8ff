// The daemon that kvoxctl talks to.
#pragma once

#include <aidl/kvox/IKvox.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "client/calls/call_deadline.h"
#include "client/errors.h"

namespace kvox::client {

using aidl::kvox::IKvox;

/// In place of the longest wait: the caller sees to it that none lasts for ever.
constexpr std::chrono::milliseconds kNoLimit{0};

/// One thread; the main thread, unless it is made with kNoLimit.
class Daemon {
 public:
  /// `wait` is the longest for one answer, after which the program ends with `status_at_timeout`.
  /// The daemon is looked for at the first use.
  explicit Daemon(std::chrono::milliseconds wait, ExitStatus status_at_timeout = kTimedOut)
      : wait_(wait), status_at_timeout_(status_at_timeout) {}

  /// Talks to this one.
  explicit Daemon(std::shared_ptr<IKvox> kvox) : kvox_(std::move(kvox)) {}

  /// Throws Failure when there is none, or none that may be used.
  const std::shared_ptr<IKvox>& kvox();

  /// True when there is one; does not throw.
  bool Find();

  /// Forgets the present one, so that the next use looks for it again.
  void Forget() { kvox_.reset(); }

  /// Runs `call(IKvox&)`, which answers a binder status, and ends the program when no answer comes
  /// in time. Throws Failure when the connection breaks.
  template <typename Function>
  void Run(const char* method, Function call) {
    std::optional<CallDeadline> deadline;
    if (wait_ != kNoLimit) deadline.emplace(method, status_at_timeout_, wait_);
    Check(method, call(*kvox()));
  }

  /// Calls a method whose answer is a CommandResult alone, whatever its status.
  template <typename Method, typename... T>
  IKvox::CommandResult Call(const char* name, Method method, const T&... arguments) {
    IKvox::CommandResult result;
    Run(name, [&](IKvox& daemon) { return (daemon.*method)(arguments..., &result); });
    return result;
  }

  /// The longest for one answer.
  std::chrono::milliseconds wait() const { return wait_; }
  void set_wait(std::chrono::milliseconds wait) { wait_ = wait; }

 private:
  static void Check(const char* method, const ndk::ScopedAStatus& status);

  std::shared_ptr<IKvox> kvox_;
  std::chrono::milliseconds wait_ = kLongestWait;
  const ExitStatus status_at_timeout_ = kTimedOut;
};

}  // namespace kvox::client
