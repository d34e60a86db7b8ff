// The connection to the daemon. Each wait for a reply has an end.
#pragma once

#include <aidl/kvox/BnKvox.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <utility>

#include "libkvox/errors.h"

namespace kvox::client {

using aidl::kvox::IKvox;

/// Far more than any command takes.
constexpr std::chrono::milliseconds kLongestWait = std::chrono::seconds(300);

/// Instead of a longest wait: calls run on the calling thread, which ensures that none lasts
/// forever.
constexpr std::chrono::milliseconds kNoLimit{0};

/// Connects at the first use. Any thread; one call at a time, others wait for it.
class Daemon {
 public:
  using Function = std::function<ndk::ScopedAStatus(IKvox&)>;

  /// `wait` is the longest for one reply, after which a call throws Failure(status_at_timeout).
  explicit Daemon(std::chrono::milliseconds wait = kLongestWait,
                  ExitStatus status_at_timeout = kTimedOut);
  ~Daemon();

  /// Throws Failure when there is none, or none that this user may call.
  std::shared_ptr<IKvox> kvox();

  /// Whether there is a connection, and the daemon behind it has not died.
  bool alive() const;

  /// Drops the connection; the next use connects again.
  void Disconnect();

  /// Runs `call`, which calls `method`. Throws Failure when there is no daemon, no reply in time,
  /// or the connection breaks. `call` owns what it uses: after a timeout it may still be running.
  void Run(const char* method, const Function& call);

  /// Runs `call(IKvox&, Output&)`, and returns the output.
  template <typename Output, typename Filler>
  Output Get(const char* method, Filler call) {
    auto output = std::make_shared<Output>();
    Run(method, [call, output](IKvox& kvox) { return call(kvox, *output); });
    return std::move(*output);
  }

  /// Calls a method whose only output is a CommandResult, and returns it, whatever its status.
  template <typename Method, typename... T>
  IKvox::CommandResult Call(const char* name, Method method, const T&... arguments) {
    return Get<IKvox::CommandResult>(name, [=](IKvox& kvox, IKvox::CommandResult& result) {
      return (kvox.*method)(arguments..., &result);
    });
  }

  /// Calls Ping, and returns the round trip in microseconds, without the time to connect.
  double Ping();

  /// The longest wait for one reply.
  std::chrono::milliseconds wait() const { return wait_; }
  void set_wait(std::chrono::milliseconds wait) { wait_ = wait; }

 private:
  struct Connection;

  const std::unique_ptr<Connection> connection_;
  std::atomic<std::chrono::milliseconds> wait_;
  const ExitStatus status_at_timeout_;
};

/// Limits the waits of the calling thread while it lives, as a daemon may hang.
class CallLimit {
 public:
  explicit CallLimit(std::chrono::milliseconds longest);
  ~CallLimit();
  CallLimit(const CallLimit&) = delete;
  CallLimit& operator=(const CallLimit&) = delete;

 private:
  const std::chrono::milliseconds before_;
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

/// Starts the one thread that serves the daemon's calls to the callbacks of this process. Later
/// calls do nothing.
void ServeCallbacks();

}  // namespace kvox::client
