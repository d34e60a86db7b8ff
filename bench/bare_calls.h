// The least a call between two processes can cost when it takes the way that the transport's calls
// take: a caller writes, a thread of the server reads and hands over to another one, which answers;
// a thread of the client reads the answer and wakes the caller.
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

/// Role of a child: serves one client on the socket `path`, then ends. Answers an exit status.
int RunBareServer(const std::string& path, CallSizes sizes);

/// The caller's end. One calling thread.
class BareClient {
 public:
  /// Connects, waiting up to five seconds for the server. Throws std::runtime_error.
  BareClient(const std::string& path, CallSizes sizes);
  ~BareClient();
  BareClient(const BareClient&) = delete;
  BareClient& operator=(const BareClient&) = delete;

  /// One round trip. Throws std::runtime_error when the server has gone.
  void Call();

 private:
  void ReadReplies();

  const CallSizes sizes_;
  const int socket_;
  const std::vector<std::byte> request_;
  Mutex mutex_;
  CondVar changed_;
  bool answered_ GUARDED_BY(mutex_) = false;
  bool ended_ GUARDED_BY(mutex_) = false;
  std::thread reader_;
};

}  // namespace kvox::bench
