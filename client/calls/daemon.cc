#include "client/calls/daemon.h"

#include <android/binder_manager.h>
#include <android/binder_process.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>

#include "client/system/signals.h"
#include "interface/service_name.h"
#include "kvox/common/fixed_text.h"
#include "platform/platform.h"

namespace kvox::client {
namespace {

// Prepared for the signal handler, which may only make system calls.
char message[256];
size_t message_size = 0;
int status_at_end = 0;

void OnExpired(int) {
  static_cast<void>(!write(STDERR_FILENO, message, message_size));
  _exit(status_at_end);
}

void StartTimer(std::chrono::milliseconds wait) {
  itimerval timer{};
  timer.it_value.tv_sec = wait.count() / 1000;
  timer.it_value.tv_usec = wait.count() % 1000 * 1000;
  setitimer(ITIMER_REAL, &timer, nullptr);
}

}  // namespace

CallDeadline::CallDeadline(const char* method, int exit_status, std::chrono::milliseconds wait) {
  std::string text;
  if (method != nullptr) {
    text = FormatText<sizeof message>(
        "kvoxctl: %s was not answered within %g s; see whether kvoxd hangs, and restart it\n",
        method, std::chrono::duration<double>(wait).count());
  }
  message_size = text.copy(message, sizeof message);
  status_at_end = exit_status;
  before_ = signal(SIGALRM, OnExpired);
  UnblockAlarm();
  StartTimer(wait);
}

CallDeadline::~CallDeadline() {
  StartTimer({});
  signal(SIGALRM, before_);
}

const std::shared_ptr<IKvox>& Daemon::kvox() {
  if (kvox_) return kvox_;
  const ndk::SpAIBinder service(AServiceManager_checkService(KvoxDescriptor()));
  if (service.get() == nullptr) {
    throw Failure(ServiceDenied() ? kNotAllowed : kNoDaemon, ServiceError());
  }
  kvox_ = IKvox::fromBinder(service);
  if (!kvox_) {
    throw Failure(kNoDaemon, std::string("what serves as ") + KvoxDescriptor() +
                                 " has another interface; install client and daemon of one "
                                 "release");
  }
  return kvox_;
}

double Daemon::Ping() {
  using Clock = std::chrono::steady_clock;
  kvox();
  const auto begin = Clock::now();
  Run("Ping", [](IKvox& kvox) { return kvox.Ping(); });
  return std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
}

void Daemon::Check(const char* method, const ndk::ScopedAStatus& status) {
  if (status.isOk()) return;
  if (status.getStatus() == STATUS_FAILED_TRANSACTION) {
    throw Failure(kWrongUsage, std::string(method) +
                                   ": the call or its answer is larger than the 1 MiB that one "
                                   "call can carry; give less at once");
  }
  throw Failure(kNoDaemon, std::string(method) + " was not answered: " + status.getDescription() +
                               "; see whether kvoxd still runs");
}

void ServeCallbacks() {
  ABinderProcess_setThreadPoolMaxThreadCount(1);
  ABinderProcess_startThreadPool();
}

}  // namespace kvox::client
