#include "client/system/standard_input.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

#include "client/audio/session.h"
#include "client/system/files.h"
#include "kvox/common/fixed_text.h"
#include "libkvox/errors.h"

namespace kvox::client {

StandardInput::StandardInput() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw Failure(kFailed, std::string("standard input: no pipe: ") + ErrorText(errno).c_str());
  }
  read_end_ = UniqueFd(ends[0]);
  thread_ = std::thread([this, end = ends[1]] { Pump(UniqueFd(end)); });
}

StandardInput::~StandardInput() {
  ended_ = true;
  read_end_ = UniqueFd();  // ends a write that waits
  thread_.join();
}

std::string StandardInput::path() const {
  return "/dev/fd/" + std::to_string(read_end_.get());
}

void StandardInput::Pump(UniqueFd write_end) const {
  std::array<char, 16384> area;
  while (!ended_ && !Interrupts::Pending()) {
    pollfd input = {.fd = STDIN_FILENO, .events = POLLIN, .revents = 0};
    if (poll(&input, 1, kStep.count()) == 0) continue;
    const ssize_t count = read(STDIN_FILENO, area.data(), area.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0 || !WriteAll(write_end.get(), area.data(), static_cast<size_t>(count))) return;
  }
}

}  // namespace kvox::client
