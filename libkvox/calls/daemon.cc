#include "libkvox/calls/daemon.h"

#include <android/binder_manager.h>
#include <android/binder_process.h>

#include <optional>
#include <string>

#include "interface/service_name.h"
#include "kvox/common/fixed_text.h"
#include "kvox/common/mutex.h"
#include "libkvox/calls/call_thread.h"
#include "platform/platform.h"

namespace kvox::client {
namespace {

using Clock = std::chrono::steady_clock;

/// Throws Failure.
std::shared_ptr<IKvox> Connect() {
  const ndk::SpAIBinder service(AServiceManager_checkService(KvoxDescriptor()));
  if (service.get() == nullptr) {
    throw Failure(ServiceDenied() ? kNotAllowed : kNoDaemon, ServiceError());
  }
  auto kvox = IKvox::fromBinder(service);
  if (kvox) return kvox;
  throw Failure(kNoDaemon, std::string("what serves as ") + KvoxDescriptor() +
                               " has another interface; install client and daemon of one release");
}

void Check(const char* method, const ndk::ScopedAStatus& status) {
  if (status.isOk()) return;
  if (status.getStatus() == STATUS_FAILED_TRANSACTION) {
    throw Failure(kWrongUsage, std::string(method) +
                                   ": the call or its answer is larger than the 1 MiB that one "
                                   "call can carry; give less at once");
  }
  throw Failure(kNoDaemon, std::string(method) + " was not answered: " + status.getDescription() +
                               "; see whether kvoxd still runs");
}

/// A call on its way, which may outlive the wait for it.
struct Task {
  std::shared_ptr<IKvox> kvox;
  std::optional<Failure> failure = {};

  void Run(const char* method, const Daemon::Function& call) {
    try {
      if (!kvox) kvox = Connect();
      Check(method, call(*kvox));
    } catch (const Failure& caught) {
      failure = caught;
    }
  }
};

}  // namespace

namespace {
thread_local std::chrono::milliseconds call_limit = std::chrono::milliseconds::max();
}  // namespace

CallLimit::CallLimit(std::chrono::milliseconds longest)
    : before_(std::exchange(call_limit, std::min(call_limit, longest))) {}

CallLimit::~CallLimit() {
  call_limit = before_;
}

struct Daemon::Connection {
  Mutex mutex;
  std::shared_ptr<IKvox> kvox GUARDED_BY(mutex);
  CallThread thread GUARDED_BY(mutex);
};

Daemon::Daemon(std::chrono::milliseconds wait, ExitStatus status_at_timeout)
    : connection_(std::make_unique<Connection>()),
      wait_(wait),
      status_at_timeout_(status_at_timeout) {}

Daemon::~Daemon() = default;

std::shared_ptr<IKvox> Daemon::kvox() {
  for (;;) {
    {
      const MutexLock lock(connection_->mutex);
      if (connection_->kvox) return connection_->kvox;
    }
    Run("the connection", [](IKvox&) { return ndk::ScopedAStatus::ok(); });
  }
}

void Daemon::Disconnect() {
  const MutexLock lock(connection_->mutex);
  connection_->kvox.reset();
}

bool Daemon::alive() const {
  const MutexLock lock(connection_->mutex);
  return connection_->kvox && AIBinder_isAlive(connection_->kvox->asBinder().get());
}

void Daemon::Run(const char* method, const Function& call) {
  const MutexLock lock(connection_->mutex);
  const auto task = std::make_shared<Task>(connection_->kvox);
  const auto run = [task, call, name = std::string(method)] { task->Run(name.c_str(), call); };
  const std::chrono::milliseconds wait = std::min(wait_.load(), call_limit);
  if (wait == kNoLimit) {
    run();
  } else if (!connection_->thread.Run(run, wait)) {
    throw Failure(
        status_at_timeout_,
        FormatText<256>("%s was not answered within %g s; see whether kvoxd hangs, and restart it",
                        method, std::chrono::duration<double>(wait).count()));
  }
  connection_->kvox = task->kvox;
  if (task->failure) throw *task->failure;
}

double Daemon::Ping() {
  kvox();
  return Get<double>("Ping", [](IKvox& kvox, double& us) {
    const auto begin = Clock::now();
    auto status = kvox.Ping();
    us = std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
    return status;
  });
}

void ServeCallbacks() {
  static const bool started = [] {
    ABinderProcess_setThreadPoolMaxThreadCount(1);
    ABinderProcess_startThreadPool();
    return true;
  }();
  static_cast<void>(started);
}

}  // namespace kvox::client
