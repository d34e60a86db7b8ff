// The longest that kvoxctl waits for the answer to a call.
#pragma once

#include <chrono>

namespace kvox::client {

/// Far more than any command takes.
constexpr std::chrono::milliseconds kLongestWait = std::chrono::seconds(300);

/// While one exists, a timer runs that ends the process with `exit_status` and a message. One at a
/// time, on the main thread.
class CallDeadline {
 public:
  CallDeadline(const char* method, int exit_status, std::chrono::milliseconds wait = kLongestWait);
  ~CallDeadline();
  CallDeadline(const CallDeadline&) = delete;
  CallDeadline& operator=(const CallDeadline&) = delete;

 private:
  void (*before_)(int);  // what an alarm did
};

}  // namespace kvox::client
