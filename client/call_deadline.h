// The longest that kvoxctl waits for the answer to a call.
#pragma once

namespace kvox::client {

/// While one exists, a timer runs that ends the process with `exit_status` and a message: 300
/// seconds, far more than any command takes. One at a time, on the main thread.
class CallDeadline {
 public:
  CallDeadline(const char* method, int exit_status);
  ~CallDeadline();
  CallDeadline(const CallDeadline&) = delete;
  CallDeadline& operator=(const CallDeadline&) = delete;
};

}  // namespace kvox::client
