#include "client/call_deadline.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace kvox::client {
namespace {

constexpr unsigned kSeconds = 300;

// What the handler says and answers, made beforehand: it may only make system calls.
char message[256];
size_t message_size = 0;
int status_at_end = 0;

void OnExpired(int) {
  static_cast<void>(!write(STDERR_FILENO, message, message_size));
  _exit(status_at_end);
}

}  // namespace

CallDeadline::CallDeadline(const char* method, int exit_status) {
  const int size = snprintf(message, sizeof message,
                            "kvoxctl: %s was not answered within %u s; see whether kvoxd hangs, "
                            "and restart it\n",
                            method, kSeconds);
  message_size = std::min(static_cast<size_t>(size), sizeof message - 1);
  status_at_end = exit_status;
  signal(SIGALRM, OnExpired);
  alarm(kSeconds);
}

CallDeadline::~CallDeadline() {
  alarm(0);
}

}  // namespace kvox::client
