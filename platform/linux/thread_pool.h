// The threads that serve calls, and their work: requests, scheduled fairly between users, their
// processes and their connections, and tasks (death notices, last references), which go first.
#pragma once

#include <android/binder_auto_utils.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kvox/common/mutex.h"
#include "kvox/common/thread_group.h"
#include "platform/linux/fair_queue.h"
#include "platform/linux/limits.h"
#include "platform/linux/parcel.h"
#include "platform/linux/service_load.h"

namespace kvox::binder {

/// A call by the peer.
struct Request {
  ndk::SpAIBinder target;  // a local object
  uint64_t call = 0;
  transaction_code_t code = 0;
  binder_flags_t flags = 0;
  std::unique_ptr<AParcel> parcel;
  std::unique_ptr<ServiceLoad::Hold> memory = nullptr;  // of a service

  bool oneway() const { return (flags & FLAG_ONEWAY) != 0; }
};

/// The requests of one connection. One-way calls run one at a time in their order, others as soon
/// as a thread is free.
class RequestQueue : public std::enable_shared_from_this<RequestQueue> {
 public:
  /// Shares threads with all queues of that process and that user. `limited`: these have no more
  /// than their shares of them, as clients of a service. A client's own pool has no shares: its
  /// threads are as many as it asked for.
  RequestQueue(const Credentials& peer, bool limited)
      : owner_{.user = peer.uid,
               // Processes of another pid namespace all have number 0.
               .process = peer.pid != 0 ? static_cast<uint64_t>(peer.pid)
                                        : reinterpret_cast<uintptr_t>(this),
               .limited = limited} {}
  virtual ~RequestQueue() = default;

 protected:
  /// Serves one request, on a pool thread.
  virtual void Serve(Request request) = 0;
  /// Half of a queue that was full is done; on a pool thread.
  virtual void OnResume() = 0;

 private:
  friend class ThreadPool;

  const WorkOwner owner_;
  // All under the pool's lock.
  std::deque<Request> pending_;
  size_t pending_bytes_ = 0;
  bool full_ = false;
  bool blocked_ = false;
  bool scheduled_ = false;
  bool oneway_running_ = false;
};

/// One per process. Not to be called under a lock that a queue's functions take.
class ThreadPool {
 public:
  using Task = std::function<void()>;

  static ThreadPool& Get();

  bool SetThreadCount(uint32_t count);
  /// Starts the pool's own threads unless they run.
  void Start();
  /// Serves on the calling thread until Stop.
  void Join();
  /// The calling thread's request waits for a device rather than works, or does so no longer: up to
  /// kMaxWaitingCalls such requests leave their places to others. Nested pairs count as one. No
  /// effect on threads that serve no request.
  void SetWaiting(bool waits);
  /// Ends all threads after their current work, then runs the remaining tasks. Not on a pool
  /// thread.
  void Stop();

  void Post(Task task);

  /// False when the queue now holds more than any peer may have waiting.
  bool Enqueue(RequestQueue& queue, Request request);
  /// Whether the queue should get no more requests for now: it is blocked or full. A full queue
  /// stays so until half of it is done.
  bool Paused(const RequestQueue& queue) const;
  /// A blocked queue's requests wait.
  void SetBlocked(RequestQueue& queue, bool blocked);
  bool Blocked(const RequestQueue& queue) const;
  /// Takes all requests out of the queue.
  std::deque<Request> Clear(RequestQueue& queue);

 private:
  using Clock = std::chrono::steady_clock;

  ThreadPool() = default;

  enum class Stay { kUntilStop, kWhileNeeded };
  void Run(Stay stay) REQUIRES(mutex_);
  /// How many requests are served at a time, but for those that wait.
  size_t places() const REQUIRES(mutex_);
  /// Serves one request of the next queue.
  void ServeNext() REQUIRES(mutex_);
  bool HasThreadToSpare() REQUIRES(mutex_);
  void RunTask() REQUIRES(mutex_);
  void Schedule(RequestQueue& queue) REQUIRES(mutex_);
  static size_t FirstRunnable(const RequestQueue& queue);

  mutable Mutex mutex_;
  CondVar work_;
  CondVar idle_;
  uint32_t thread_count_ GUARDED_BY(mutex_) = 1;
  uint32_t joined_ GUARDED_BY(mutex_) = 0;   // threads that are not the pool's own
  uint32_t running_ GUARDED_BY(mutex_) = 0;  // all threads
  size_t active_ GUARDED_BY(mutex_) = 0;     // requests being served, but for those that wait
  size_t waiting_ GUARDED_BY(mutex_) = 0;    // those
  /// Spare threads stay until then, also while other calls keep them busy.
  Clock::time_point spare_until_ GUARDED_BY(mutex_);
  bool started_ GUARDED_BY(mutex_) = false;
  bool stopping_ GUARDED_BY(mutex_) = false;
  std::vector<std::thread> threads_ GUARDED_BY(mutex_);
  /// Threads in place of those whose calls wait.
  std::unique_ptr<ThreadGroup> spare_threads_ GUARDED_BY(mutex_);
  std::deque<Task> tasks_ GUARDED_BY(mutex_);
  FairQueue<std::shared_ptr<RequestQueue>> ready_ GUARDED_BY(mutex_){
      {.users = kCallsInFlight, .process = kMaxCallsOfProcess}};
};

/// Starts a thread of this name with signals blocked. Throws std::system_error like std::thread.
std::thread StartThread(const std::string& name, std::function<void()> body);

}  // namespace kvox::binder
