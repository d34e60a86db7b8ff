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

/// Whether a live process, this one included, has the name for its services. Looks at the lock that
/// goes with it for an instant. True as well when that lock is out of reach.
bool IsServed(const std::string& name);

/// One a process. Any thread; each function leaves its error text for its thread.
class ServiceManager {
 public:
  static ServiceManager& Get();

  binder_exception_t Add(AIBinder* binder, const char* instance);
  /// Looks once.
  ndk::SpAIBinder Check(const std::string& name);
  /// Takes all services back and forgets the connections.
  void Clear();

 private:
  struct Service {
    UniqueFd lock;
    std::string path;
    std::shared_ptr<ServicePort> port;
    std::unique_ptr<Listener> listener;
  };

  ServiceManager() = default;

  /// `root` becomes the object that it replaces, for the caller to drop without the lock.
  binder_exception_t Publish(const std::string& name, ndk::SpAIBinder* root, std::string* error)
      REQUIRES(mutex_);
  ServiceLink CheckPath(const std::string& path) REQUIRES(mutex_);

  // Held while a service is connected to, which takes the handshake time at most.
  Mutex mutex_;
  std::map<std::string, Service> services_ GUARDED_BY(mutex_);                         // by name
  std::map<std::string, std::shared_ptr<Connection>> connections_ GUARDED_BY(mutex_);  // by path
};

}  // namespace kvox::binder
