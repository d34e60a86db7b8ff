#include "client/calls/daemon.h"

#include <android/binder_manager.h>
#include <android/binder_process.h>

#include "interface/service_name.h"
#include "platform/platform.h"

namespace kvox::client {

const std::shared_ptr<IKvox>& Daemon::kvox() {
  if (!kvox_) {
    kvox_ = IKvox::fromBinder(ndk::SpAIBinder(AServiceManager_checkService(KvoxDescriptor())));
  }
  if (!kvox_) throw Failure(ServiceDenied() ? kNotAllowed : kNoDaemon, ServiceError());
  return kvox_;
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
