// Who is at the other end of a connection, and whom a thread serves.
#pragma once

#include <sys/types.h>

namespace kvox::binder {

struct Credentials {
  uid_t uid;
  pid_t pid;  // 0 for a process in another pid namespace

  bool operator==(const Credentials&) const = default;
};

/// The process at the other end of a connected socket; process 0 of no user when the system does
/// not tell. Any thread.
Credentials PeerCredentials(int fd);

/// Makes `caller` the one that the calling thread serves, for a scope.
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
