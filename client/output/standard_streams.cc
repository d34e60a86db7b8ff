#include "client/output/standard_streams.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iterator>
#include <stdexcept>

#include "client/system/files.h"

namespace kvox::client {

void PrepareStandardStreams() {
  signal(SIGPIPE, SIG_IGN);  // which would end the process; errno tells it as well
  pollfd streams[] = {{STDIN_FILENO, 0, 0}, {STDOUT_FILENO, 0, 0}, {STDERR_FILENO, 0, 0}};
  poll(streams, std::size(streams), 0);
  for (const pollfd& stream : streams) {
    // The lowest free number is this one. It stays open on purpose, and refuses to be written.
    if ((stream.revents & POLLNVAL) != 0) static_cast<void>(open("/dev/null", O_RDONLY));
  }
}

void PrintOut(const std::string& text) {
  if (text.empty()) return;
  if (WriteAll(STDOUT_FILENO, text.data(), text.size()) || errno == EPIPE) return;
  throw std::runtime_error(std::string("cannot write to standard output: ") + std::strerror(errno) +
                           "; send it elsewhere and try again");
}

}  // namespace kvox::client
