#include "client/standard_streams.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "client/file.h"

namespace kvox::client {

void PrepareStandardStreams() {
  signal(SIGPIPE, SIG_IGN);
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    // The lowest free number is this one. It stays open on purpose, and refuses to be written.
    if (fcntl(fd, F_GETFD) < 0) static_cast<void>(open("/dev/null", O_RDONLY));
  }
}

void PrintOut(const std::string& text) {
  if (WriteAll(STDOUT_FILENO, text.data(), text.size()) || errno == EPIPE) return;
  throw std::runtime_error(std::string("cannot write to standard output: ") + std::strerror(errno) +
                           "; send it elsewhere and try again");
}

}  // namespace kvox::client
