// A mutex, its guard and its condition variable that clang's thread-safety analysis understands.
// The attributes vanish under other compilers.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define KVOX_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define KVOX_THREAD_ATTRIBUTE(x)
#endif

#define CAPABILITY(name) KVOX_THREAD_ATTRIBUTE(capability(name))
#define SCOPED_CAPABILITY KVOX_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(mutex) KVOX_THREAD_ATTRIBUTE(guarded_by(mutex))
#define ACQUIRED_BEFORE(...) KVOX_THREAD_ATTRIBUTE(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) KVOX_THREAD_ATTRIBUTE(acquired_after(__VA_ARGS__))
#define REQUIRES(...) KVOX_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) KVOX_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) KVOX_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) KVOX_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) KVOX_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))

namespace kvox {

class CAPABILITY("mutex") Mutex {
 public:
  void Lock() ACQUIRE() { mutex_.lock(); }
  void Unlock() RELEASE() { mutex_.unlock(); }

 private:
  friend class CondVar;
  std::mutex mutex_;
};

/// Holds a Mutex for a scope; may release it and take it again in between.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
  ~MutexLock() RELEASE() {
    if (held_) mutex_.Unlock();
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void Unlock() RELEASE() {
    held_ = false;
    mutex_.Unlock();
  }
  void Lock() ACQUIRE() {
    mutex_.Lock();
    held_ = true;
  }

 private:
  Mutex& mutex_;
  bool held_ = true;
};

/// Waits on the steady clock. The caller holds the mutex and tests its condition in a loop, so that
/// the analysis sees the guarded reads.
class CondVar {
 public:
  void Wait(Mutex& mutex) REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    condition_.wait(lock);
    lock.release();
  }

  /// False when `deadline` passed first.
  bool WaitUntil(Mutex& mutex, std::chrono::steady_clock::time_point deadline) REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
    const auto status = condition_.wait_until(lock, deadline);
    lock.release();
    return status == std::cv_status::no_timeout;
  }

  void NotifyOne() { condition_.notify_one(); }
  void NotifyAll() { condition_.notify_all(); }

 private:
  std::condition_variable condition_;
};

}  // namespace kvox
