#include "platform/linux/closer.h"

#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <system_error>
#include <utility>

#include "kvox/common/log.h"
#include "platform/linux/limits.h"
#include "platform/linux/thread_pool.h"

namespace kvox::binder {
namespace {

/// Interrupts the calling thread's waits again and again while it is armed: the wait of a lingering
/// socket ends with the first signal.
class Interrupter {
 public:
  Interrupter() {
    static const int signal = TakeSignal();  // for good: one that is late must find its handler
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, signal);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = signal;
    event._sigev_un._tid = gettid();
    exists_ = signal != 0 && timer_create(CLOCK_MONOTONIC, &event, &timer_) == 0;
    if (!exists_) LogError("binder: no timer: a peer may delay the closing of its connections");
  }
  ~Interrupter() {
    if (exists_) timer_delete(timer_);
  }
  Interrupter(const Interrupter&) = delete;
  Interrupter& operator=(const Interrupter&) = delete;

  void Arm(bool on) {
    const timespec interval{.tv_sec = 0, .tv_nsec = on ? kLongestClosing.count() : 0};
    const itimerspec times{.it_interval = interval, .it_value = interval};
    if (exists_) timer_settime(timer_, 0, &times, nullptr);
  }

 private:
  /// Sets a handler that does nothing for a signal that the program does not use: the highest one
  /// whose action is the default, below SIGRTMAX, which programs use first. 0 when there is none.
  static int TakeSignal() {
    for (int signal = SIGRTMAX - 1; signal >= SIGRTMIN; --signal) {
      struct sigaction action {};
      if (sigaction(signal, nullptr, &action) != 0 || action.sa_handler != SIG_DFL) continue;
      action.sa_handler = [](int) {};
      return sigaction(signal, &action, nullptr) == 0 ? signal : 0;
    }
    return 0;
  }

  timer_t timer_{};
  bool exists_ = false;
};

}  // namespace

Closer& Closer::Get() {
  static Closer* const closer = new Closer;  // outlives every thread, also at exit
  return *closer;
}

bool Closer::Start() {
  MutexLock lock(mutex_);
  if (thread_.joinable()) return true;
  try {
    thread_ = StartThread("binder:closer", [this] { Run(); });
  } catch (const std::system_error& error) {
    LogError("binder: no thread to close connections: %s", error.what());
    return false;
  }
  return true;
}

void Closer::Stop() {
  MutexLock lock(mutex_);
  stopping_ = true;
  changed_.NotifyAll();
  std::thread thread = std::move(thread_);
  lock.Unlock();
  if (thread.joinable()) thread.join();
  lock.Lock();
  stopping_ = false;
}

void Closer::Close(UniqueFd socket, const Credentials& peer, std::shared_ptr<void> until_closed) {
  if (!socket.valid()) return;
  shutdown(socket.get(), SHUT_RDWR);
  MutexLock lock(mutex_);
  if (!thread_.joinable()) return;  // closed as the arguments go
  const WorkOwner owner{.user = peer.uid, .process = 0, .limited = false};
  sockets_.Push(owner, {owner, std::move(socket), std::move(until_closed)});
  ++waiting_;
  changed_.NotifyAll();
}

bool Closer::behind() const {
  MutexLock lock(mutex_);
  return waiting_ >= kMaxClosings;
}

void Closer::Run() {
  Interrupter interrupter;
  MutexLock lock(mutex_);
  for (;;) {
    while (waiting_ == 0 && !stopping_) changed_.Wait(mutex_);
    if (waiting_ == 0) return;
    Closing next = sockets_.Pop();
    const WorkOwner owner = next.owner;
    lock.Unlock();
    interrupter.Arm(true);
    next.socket = UniqueFd();
    interrupter.Arm(false);
    next.until_closed = nullptr;
    lock.Lock();
    sockets_.Finish(owner);
    --waiting_;
  }
}

}  // namespace kvox::binder
