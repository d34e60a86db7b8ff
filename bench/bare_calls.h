// A minimal call between two processes with the transport's thread hops, as a baseline: the caller
// writes, a thread of the server reads and passes the request to another one, which replies; a
// thread of the client reads the reply and wakes the caller.
#pragma once

#include <cstddef>
#include <string>
#include <thread>
#include <vector>

#include "kvox/common/mutex.h"

namespace kvox::bench {

struct CallSizes {
  size_t request;  // bytes on the socket
  size_t reply;
};

/// Role of a child: serves one client on the socket `path`, then ends. Returns an exit status.
int RunBareServer(const std::string& path, CallSizes sizes);

/// The caller's end. One calling thread.
class BareClient {
 public:
  /// Connects, waiting up to five seconds for the server. Throws std::runtime_error.
  BareClient(const std::string& path, CallSizes sizes);
  ~BareClient();
  BareClient(const BareClient&) = delete;
  BareClient& operator=(const BareClient&) = delete;

  /// One round trip. Throws std::runtime_error when the server is gone.
  void Call();

 private:
  void ReadReplies();

  const CallSizes sizes_;
  const int socket_;
  const std::vector<std::byte> request_;
  Mutex mutex_;
  CondVar changed_;
  bool replied_ GUARDED_BY(mutex_) = false;
  bool ended_ GUARDED_BY(mutex_) = false;
  std::thread reader_;
};

}  // namespace kvox::bench
