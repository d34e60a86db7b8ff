// The thread that brings the service back after devices went and came, and the pauses it makes.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <thread>

#include "kvox/common/mutex.h"

namespace kvox {

/// How a recovery passes its time. Tests bring one that only counts.
class RecoveryPacer {
 public:
  virtual ~RecoveryPacer() = default;

  /// Pauses; false when the recovery has to end.
  virtual bool Pause(std::chrono::milliseconds time) = 0;
  virtual bool stopping() const = 0;

  /// A scan begins now: devices that arrived up to here are found by it.
  virtual void ScanBegins() = 0;

  /// Returns true once devices have arrived after the last scan and none has for half a second;
  /// false when the recovery has to end.
  virtual bool WaitForArrivals() = 0;
};

/// One recovery under way. Destroying it ends it.
class Recovery {
 public:
  using Body = std::function<void(RecoveryPacer&)>;
  /// Null when it could not be started.
  using Starter = std::function<std::unique_ptr<Recovery>(Body)>;

  virtual ~Recovery() = default;

  /// Another device has arrived. Any thread.
  virtual void NoteArrival() = 0;

  /// Tells the body to end; its pauses end at once. Any thread.
  virtual void RequestStop() = 0;
};

/// Runs the body on a thread of its own, which the destructor joins.
class RecoveryThread : public Recovery, private RecoveryPacer {
 public:
  /// Null, after a log line that tells why, when the system has no thread to give.
  static std::unique_ptr<Recovery> Start(Body body);

  /// Throws std::system_error when there is no thread.
  explicit RecoveryThread(Body body);
  ~RecoveryThread() override;

  void NoteArrival() override;
  void RequestStop() override;

 private:
  bool Pause(std::chrono::milliseconds time) override;
  bool stopping() const override;
  void ScanBegins() override;
  bool WaitForArrivals() override;

  using Clock = std::chrono::steady_clock;

  mutable Mutex mutex_;  // a leaf lock
  CondVar changed_;
  bool stopping_ GUARDED_BY(mutex_) = false;
  bool arrived_ GUARDED_BY(mutex_) = false;
  Clock::time_point last_arrival_ GUARDED_BY(mutex_);
  std::thread thread_;
};

}  // namespace kvox
