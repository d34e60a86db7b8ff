#include "platform/linux/service_manager.h"

#include <errno.h>
#include <fcntl.h>
#include <kvox_host/binder_host.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

#include "kvox/common/log.h"
#include "platform/linux/binder_object.h"
#include "platform/linux/closer.h"
#include "platform/linux/reactor.h"
#include "platform/linux/runtime_directory.h"
#include "platform/platform.h"

namespace kvox::binder {
namespace {

using Clock = std::chrono::steady_clock;

constexpr mode_t kSocketMode = 0660;
constexpr mode_t kLockMode = 0600;  // anyone who can open it can lock it

thread_local std::string error_of_thread;
thread_local bool denied_of_thread = false;

binder_exception_t ExceptionFor(int cause) {
  return cause == EACCES || cause == EPERM || cause == EROFS ? EX_SECURITY : EX_ILLEGAL_STATE;
}

/// Sets `error` to what failed and why; returns its exception.
binder_exception_t Refusal(const std::string& what, int cause, std::string* error) {
  *error = what + ": " + std::strerror(cause);
  return ExceptionFor(cause);
}

/// Locks the service's name as long as this process lives.
binder_exception_t LockName(const std::string& path, UniqueFd* lock, std::string* error) {
  *lock = UniqueFd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kLockMode));
  if (!lock->valid()) return Refusal("cannot open " + path, errno, error);
  const int cause = flock(lock->get(), LOCK_EX | LOCK_NB) == 0 ? 0 : errno;
  if (cause == 0) return EX_NONE;
  if (cause != EWOULDBLOCK) return Refusal("cannot lock " + path, cause, error);
  *error = path + " is locked: another process serves that name; stop it first";
  return EX_ILLEGAL_STATE;
}

/// Creates a socket at `path`, replacing one that a dead process left. Its permissions never exceed
/// its final mode, and no client can connect before they are set.
binder_exception_t Listen(const std::string& path, UniqueFd* fd, std::string* error) {
  sockaddr_un address;
  if (!MakeAddress(path, &address, error)) return EX_ILLEGAL_ARGUMENT;
  *fd = UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!fd->valid()) return Refusal("cannot make a socket", errno, error);
  if (unlink(path.c_str()) != 0 && errno != ENOENT) {
    return Refusal("cannot replace " + path, errno, error);
  }
  const auto* name = reinterpret_cast<const sockaddr*>(&address);
  if (fchmod(fd->get(), kSocketMode) != 0 || bind(fd->get(), name, sizeof address) != 0) {
    return Refusal("cannot make the socket " + path, errno, error);
  }
  if (const int cause = SetMode(path, S_IFSOCK, kSocketMode); cause != 0) {
    return Refusal("cannot give its mode to " + path, cause, error);
  }
  // Where the system can, it refuses to send descriptors to us.
  constexpr int kPassRights = 83;  // SO_PASSRIGHTS
  const int off = 0;
  setsockopt(fd->get(), SOL_SOCKET, kPassRights, &off, sizeof off);
  if (listen(fd->get(), kListenBacklog) == 0) return EX_NONE;
  return Refusal("cannot listen on " + path, errno, error);
}

/// Looks for a service until `deadline`, once at least.
AIBinder* Await(const char* instance, Clock::time_point deadline) {
  const std::string name = instance == nullptr ? "" : instance;
  while (true) {
    ndk::SpAIBinder found = ServiceManager::Get().Check(name);
    if (found.get() != nullptr) return std::exchange(*found.getR(), nullptr);
    if (!IsServiceName(name) || Clock::now() >= deadline) return nullptr;
    std::this_thread::sleep_for(kLookupInterval);
  }
}

}  // namespace

ServiceManager& ServiceManager::Get() {
  static ServiceManager* const manager = new ServiceManager;  // outlives every thread, also at exit
  return *manager;
}

binder_exception_t ServiceManager::Add(AIBinder* binder, const char* instance) {
  const std::string name = instance == nullptr ? "" : instance;
  binder_exception_t result = EX_ILLEGAL_ARGUMENT;
  std::string error;
  if (binder == nullptr || AIBinder_isRemote(binder) ||
      binder->clazz()->descriptor.size() > kMaxDescriptorSize) {
    error = "only an object of this process can be registered as \"" + name + "\"";
  } else if (!IsServiceName(name)) {
    error = "\"" + name + "\" is no service name: 1 to 127 letters, digits and _ - . /";
  } else {
    AIBinder_incStrong(binder);
    ndk::SpAIBinder root(binder);
    MutexLock lock(mutex_);
    result = Publish(name, &root, &error);
  }
  if (result != EX_NONE) LogError("binder: service not registered: %s", error.c_str());
  error_of_thread = std::move(error);
  return result;
}

binder_exception_t ServiceManager::Publish(const std::string& name, ndk::SpAIBinder* root,
                                           std::string* error) {
  if (const auto known = services_.find(name); known != services_.end()) {
    *root = known->second.port->Replace(std::move(*root));
    return EX_NONE;
  }
  std::string directory;
  if (const int cause = PrepareRuntimeDirectory(&directory, error)) return ExceptionFor(cause);
  Service service;
  service.path = SocketPath(directory, name);
  UniqueFd socket;
  binder_exception_t result = LockName(LockPath(directory, name), &service.lock, error);
  if (result == EX_NONE) result = Listen(service.path, &socket, error);
  if (result != EX_NONE) return result;
  service.port = std::make_shared<ServicePort>(*root);
  service.listener = std::make_unique<Listener>(std::move(socket), service.port);
  event_base* base = Reactor::Get().Start();
  if (base == nullptr || !service.listener->Start(base)) {
    unlink(service.path.c_str());
    *error = "the process has no thread, descriptor or memory left";
    return EX_ILLEGAL_STATE;
  }
  services_[name] = std::move(service);
  return EX_NONE;
}

ndk::SpAIBinder ServiceManager::Check(const std::string& name) {
  error_of_thread.clear();
  denied_of_thread = false;
  if (!IsServiceName(name)) {
    error_of_thread = "\"" + name + "\" is no service name";
    return nullptr;
  }
  MutexLock lock(mutex_);
  if (const auto own = services_.find(name); own != services_.end()) {
    return own->second.port->root();
  }
  std::string all_absent;
  for (const std::string& directory : LookupDirectories()) {
    ServiceLink link = CheckPath(SocketPath(directory, name));
    denied_of_thread = link.denied;
    if (link.root.get() != nullptr) return std::move(link.root);
    if (!link.absent) {
      error_of_thread = std::move(link.error);
      return nullptr;
    }
    all_absent += (all_absent.empty() ? "" : ", ") + directory;
  }
  error_of_thread = name + " is not in " + all_absent +
                    "; start the daemon, or set KVOX_RUNTIME_DIR (or XDG_RUNTIME_DIR, for its "
                    "directory kvox) to where it runs";
  return nullptr;
}

ServiceLink ServiceManager::CheckPath(const std::string& path) {
  std::shared_ptr<Connection>& connection = connections_[path];
  if (connection != nullptr && connection->open()) {
    ServiceLink link;
    link.root = connection->QueryRoot(Clock::now() + kHandshakeTimeout);
    if (link.root.get() != nullptr) return link;
    if (connection->open()) {
      link.error = path + " does not answer; is its process stopped? Try again";
      return link;
    }
  }
  ServiceLink link = ConnectToService(path);
  connection = std::move(link.connection);
  return link;
}

void ServiceManager::Clear() {
  MutexLock lock(mutex_);
  const auto services = std::exchange(services_, {});
  const auto connections = std::exchange(connections_, {});
  lock.Unlock();
  for (const auto& [name, service] : services) unlink(service.path.c_str());
}

}  // namespace kvox::binder

binder_exception_t AServiceManager_addService(AIBinder* binder, const char* instance) {
  return kvox::binder::ServiceManager::Get().Add(binder, instance);
}
AIBinder* AServiceManager_checkService(const char* instance) {
  return kvox::binder::Await(instance, kvox::binder::Clock::time_point::min());
}
AIBinder* AServiceManager_getService(const char* instance) {
  const auto deadline = kvox::binder::Clock::now() + kvox::binder::kGetServiceTimeout;
  return kvox::binder::Await(instance, deadline);
}
AIBinder* AServiceManager_waitForService(const char* instance) {
  return kvox::binder::Await(instance, kvox::binder::Clock::time_point::max());
}

const std::string& kvox::ServiceError() {
  return kvox::binder::error_of_thread;
}

bool kvox::ServiceDenied() {
  return kvox::binder::denied_of_thread;
}

namespace kvox_host {

const std::string& ServiceError() {
  return kvox::ServiceError();
}

void StopBinder() {
  kvox::binder::ServiceManager::Get().Clear();
  kvox::binder::Reactor::Get().Stop();
  kvox::binder::Closer::Get().Stop();
  kvox::binder::ThreadPool::Get().Stop();
}

}  // namespace kvox_host
