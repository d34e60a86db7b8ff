// The peer of a connection, and the caller that a thread serves.
#pragma once

#include <sys/types.h>
#include <unistd.h>

namespace kvox::binder {

struct Credentials {
  uid_t uid;
  pid_t pid;  // 0 for a process in another pid namespace

  bool operator==(const Credentials&) const = default;
};

/// Root, or the user that this process runs as.
inline bool IsPrivileged(uid_t user) {
  return user == 0 || user == geteuid();
}

/// The process at the other end of a connected socket; process 0 of no user if the system does not
/// report it. Any thread.
Credentials PeerCredentials(int fd);

/// Sets the caller that this thread serves, for a scope.
class ScopedCallingIdentity {
 public:
  explicit ScopedCallingIdentity(const Credentials& caller);
  ~ScopedCallingIdentity();
  ScopedCallingIdentity(const ScopedCallingIdentity&) = delete;
  ScopedCallingIdentity& operator=(const ScopedCallingIdentity&) = delete;

 private:
  const Credentials* const previous_;
};

}  // namespace kvox::binder
