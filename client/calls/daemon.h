// The daemon that kvoxctl talks to, and the longest wait for its replies.
#pragma once

#include <aidl/kvox/BnKvox.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "client/errors.h"

namespace kvox::client {

using aidl::kvox::IKvox;

/// Far more than any command takes.
constexpr std::chrono::milliseconds kLongestWait = std::chrono::seconds(300);

/// While one exists, a timer runs that ends the process with `exit_status` and a message that names
/// the method; no message if that is nullptr. One at a time, on the main thread.
class CallDeadline {
 public:
  CallDeadline(const char* method, int exit_status, std::chrono::milliseconds wait = kLongestWait);
  ~CallDeadline();
  CallDeadline(const CallDeadline&) = delete;
  CallDeadline& operator=(const CallDeadline&) = delete;

 private:
  void (*before_)(int);  // the handler of SIGALRM to restore
};

/// Instead of a longest wait: the caller ensures that no call lasts forever.
constexpr std::chrono::milliseconds kNoLimit{0};

/// One thread; the main thread, unless it is made with kNoLimit.
class Daemon {
 public:
  /// `wait` is the longest for one reply, after which the program ends with `status_at_timeout`.
  /// Connects at the first use.
  explicit Daemon(std::chrono::milliseconds wait, ExitStatus status_at_timeout = kTimedOut)
      : wait_(wait), status_at_timeout_(status_at_timeout) {}

  /// Throws Failure when there is none, or none that this user may call.
  const std::shared_ptr<IKvox>& kvox();

  /// Drops the connection; the next use connects again.
  void Disconnect() { kvox_.reset(); }

  /// Runs `call(IKvox&)`, which returns a binder status, and ends the program when no reply comes
  /// in time. Throws Failure when the connection breaks.
  template <typename Function>
  void Run(const char* method, Function call) {
    std::optional<CallDeadline> deadline;
    if (wait_ != kNoLimit) deadline.emplace(method, status_at_timeout_, wait_);
    Check(method, call(*kvox()));
  }

  /// Calls a method whose only output is a CommandResult, and returns it, whatever its status.
  template <typename Method, typename... T>
  IKvox::CommandResult Call(const char* name, Method method, const T&... arguments) {
    IKvox::CommandResult result;
    Run(name, [&](IKvox& daemon) { return (daemon.*method)(arguments..., &result); });
    return result;
  }

  /// Calls Ping, and returns the round trip in microseconds, without the time to connect.
  double Ping();

  /// The longest wait for one reply.
  std::chrono::milliseconds wait() const { return wait_; }
  void set_wait(std::chrono::milliseconds wait) { wait_ = wait; }

 private:
  static void Check(const char* method, const ndk::ScopedAStatus& status);

  std::shared_ptr<IKvox> kvox_;
  std::chrono::milliseconds wait_;
  const ExitStatus status_at_timeout_;
};

/// A client of a relay. Packets for which `on_packet` returns false are refused.
class AudioCallback : public IKvox::BnReceiveAudioCallback {
 public:
  using OnPacket = std::function<bool(const IKvox::AudioPacket&)>;

  explicit AudioCallback(OnPacket on_packet) : on_packet_(std::move(on_packet)) {}

  ndk::ScopedAStatus ReceiveAudio(const IKvox::AudioPacket& packet) override {
    return on_packet_(packet) ? ndk::ScopedAStatus::ok()
                              : ndk::ScopedAStatus::fromExceptionCode(EX_ILLEGAL_STATE);
  }

 private:
  const OnPacket on_packet_;
};

/// Starts the one thread that serves the daemon's calls to our callbacks.
void ServeCallbacks();

}  // namespace kvox::client
