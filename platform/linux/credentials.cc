#include "platform/linux/credentials.h"

#include <android/binder_ibinder.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

namespace kvox::binder {
namespace {

thread_local const Credentials* calling_identity = nullptr;

}  // namespace

Credentials PeerCredentials(int fd) {
  ucred credentials{};
  socklen_t size = sizeof credentials;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
    return {static_cast<uid_t>(-1), 0};
  }
  return {credentials.uid, credentials.pid};
}

ScopedCallingIdentity::ScopedCallingIdentity(const Credentials& caller)
    : previous_(std::exchange(calling_identity, &caller)) {}
ScopedCallingIdentity::~ScopedCallingIdentity() {
  calling_identity = previous_;
}

}  // namespace kvox::binder

uid_t AIBinder_getCallingUid() {
  const auto* caller = kvox::binder::calling_identity;
  return caller == nullptr ? getuid() : caller->uid;
}
pid_t AIBinder_getCallingPid() {
  const auto* caller = kvox::binder::calling_identity;
  return caller == nullptr ? getpid() : caller->pid;
}
