// The thread that brings the service back after devices went and came, and the pauses it makes.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

#include "kvox/common/mutex.h"

namespace kvox {

using RecoveryClock = std::chrono::steady_clock;

/// When devices that arrive one by one are looked for: half a second after the last of them. Pure.
class ArrivalWatch {
 public:
  void NoteArrival(RecoveryClock::time_point now) { last_ = now; }

  /// Devices that arrived up to here are found by the scan that begins.
  void ScanBegins() { last_.reset(); }

  /// When to scan again; never, while nothing has arrived since the last scan.
  RecoveryClock::time_point Due() const;

 private:
  std::optional<RecoveryClock::time_point> last_;
};

/// How a recovery passes its time. It holds no lock when it calls any of these. Tests bring one
/// with a clock of its own.
class RecoveryPacer {
 public:
  enum class Wake { kStopping, kArrivals, kTime };

  virtual ~RecoveryPacer() = default;

  virtual RecoveryClock::time_point Now() const = 0;

  /// Pauses; false when the recovery has to end.
  virtual bool Pause(std::chrono::milliseconds time) = 0;
  virtual bool stopping() const = 0;

  /// A scan begins now: devices that arrived up to here are found by it.
  virtual void ScanBegins() = 0;

  /// Waits until the recovery has to end, or devices have arrived after the last scan and none has
  /// for half a second, or it is `until`.
  virtual Wake WaitForArrivals(RecoveryClock::time_point until) = 0;
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
  RecoveryClock::time_point Now() const override { return RecoveryClock::now(); }
  bool Pause(std::chrono::milliseconds time) override;
  bool stopping() const override;
  void ScanBegins() override;
  Wake WaitForArrivals(RecoveryClock::time_point until) override;

  mutable Mutex mutex_;  // a leaf lock
  CondVar changed_;
  bool stopping_ GUARDED_BY(mutex_) = false;
  ArrivalWatch arrivals_ GUARDED_BY(mutex_);
  std::thread thread_;
};

}  // namespace kvox
