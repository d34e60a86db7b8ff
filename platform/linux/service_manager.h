// The services of this process, and its connections to those of others.
#pragma once

#include <android/binder_manager.h>

#include <map>
#include <memory>
#include <string>

#include "kvox/common/mutex.h"
#include "kvox/common/unique_fd.h"
#include "platform/linux/connection.h"
#include "platform/linux/listener.h"
#include "platform/linux/service_connector.h"

namespace kvox::binder {

/// One per process. Any thread; each function sets the thread's error text.
class ServiceManager {
 public:
  static ServiceManager& Get();

  binder_exception_t Add(AIBinder* binder, const char* instance);
  /// Looks it up once.
  ndk::SpAIBinder Check(const std::string& name);
  /// Withdraws all services and drops the connections.
  void Clear();

 private:
  struct Service {
    UniqueFd lock;
    std::string path;
    std::shared_ptr<ServicePort> port;
    std::unique_ptr<Listener> listener;
  };

  ServiceManager() = default;

  /// Sets `root` to the object that it replaced, for the caller to drop without the lock.
  binder_exception_t Publish(const std::string& name, ndk::SpAIBinder* root, std::string* error)
      REQUIRES(mutex_);
  ServiceLink CheckPath(const std::string& path) REQUIRES(mutex_);

  // Held while connecting to a service, for the handshake time at most.
  Mutex mutex_;
  std::map<std::string, Service> services_ GUARDED_BY(mutex_);                         // by name
  std::map<std::string, std::shared_ptr<Connection>> connections_ GUARDED_BY(mutex_);  // by path
};

}  // namespace kvox::binder
