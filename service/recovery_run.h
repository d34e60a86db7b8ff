// One running recovery: its thread and its pauses.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

#include "kvox/common/mutex.h"

namespace kvox {

/// When to scan for devices that arrive one by one: half a second after the last of them.
class ArrivalWatch {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  void NoteArrival(TimePoint now) {
    last_ = now;
    arrived_ = true;
  }

  /// One that has arrived before may open now. Others may follow.
  void NoteRights(TimePoint now) { last_ = now; }

  /// One that has arrived before can be used now: there is nothing to wait for.
  void NoteReady() { last_ = TimePoint::min(); }

  /// A scan starts now, which finds all devices that have arrived so far.
  void ScanBegins() {
    last_.reset();
    arrived_ = false;
  }

  bool arrived() const { return arrived_; }

  /// When to scan again; TimePoint::max() while nothing has arrived since the last scan.
  TimePoint Due() const;

 private:
  std::optional<TimePoint> last_;
  bool arrived_ = false;
};

/// The clock and waits of a recovery, which calls them without any lock. Tests have their own.
class RecoveryClock {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;
  enum class Wake { kStopping, kArrivals, kTime };

  virtual ~RecoveryClock() = default;

  virtual TimePoint Now() const = 0;

  /// Pauses; false when the recovery must end.
  virtual bool Pause(std::chrono::milliseconds time) = 0;
  virtual bool stopping() const = 0;

  /// A scan starts now, which finds all devices that have arrived so far.
  virtual void ScanBegins() = 0;

  /// Waits until the recovery must end, or a device has arrived after the last scan, or it is
  /// `until`.
  virtual Wake WaitForFirstArrival(TimePoint until) = 0;

  /// Waits until the recovery must end, or devices have arrived after the last scan and none within
  /// the last half second, or it is `until`.
  virtual Wake WaitForArrivals(TimePoint until) = 0;
};

/// One recovery under way. Destroying it ends it.
class RecoveryRun {
 public:
  using Body = std::function<void(RecoveryClock&)>;
  /// Null when it could not be started.
  using Starter = std::function<std::unique_ptr<RecoveryRun>(Body)>;

  virtual ~RecoveryRun() = default;

  /// Another device has arrived. Any thread.
  virtual void NoteArrival() = 0;

  /// One that has arrived before may open now; can be used now. Any thread.
  virtual void NoteRights() = 0;
  virtual void NoteReady() = 0;

  /// Tells the body to end; its pauses end at once. Any thread.
  virtual void RequestStop() = 0;
};

/// Runs the body on its own thread, which the destructor joins.
class RecoveryThread : public RecoveryRun, private RecoveryClock {
 public:
  /// Null, after a log line with the cause, when the system has no thread to give.
  static std::unique_ptr<RecoveryRun> Start(Body body);

  /// Throws std::system_error when there is no thread.
  explicit RecoveryThread(Body body);
  ~RecoveryThread() override;

  void NoteArrival() override;
  void NoteRights() override;
  void NoteReady() override;
  void RequestStop() override;

 private:
  TimePoint Now() const override { return std::chrono::steady_clock::now(); }
  bool Pause(std::chrono::milliseconds time) override;
  bool stopping() const override;
  void ScanBegins() override;
  Wake WaitForFirstArrival(TimePoint until) override;
  Wake WaitForArrivals(TimePoint until) override;

  void WaitForChange(TimePoint until) REQUIRES(mutex_);

  mutable Mutex mutex_;  // a leaf lock
  CondVar changed_;
  bool stopping_ GUARDED_BY(mutex_) = false;
  ArrivalWatch arrivals_ GUARDED_BY(mutex_);
  std::thread thread_;
};

}  // namespace kvox
