// The longest that kvoxctl waits for a reply.
#pragma once

#include <chrono>

namespace kvox::client {

/// Far more than any command takes.
constexpr std::chrono::milliseconds kLongestWait = std::chrono::seconds(300);

/// While one exists, a timer runs that ends the process with `exit_status` and a message that names
/// the method; silently where that is nullptr. One at a time, on the main thread.
class CallDeadline {
 public:
  CallDeadline(const char* method, int exit_status, std::chrono::milliseconds wait = kLongestWait);
  ~CallDeadline();
  CallDeadline(const CallDeadline&) = delete;
  CallDeadline& operator=(const CallDeadline&) = delete;

 private:
  void (*before_)(int);  // the handler of SIGALRM to restore
};

}  // namespace kvox::client
