#include "sim/devices/raw_terminal.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <stdlib.h>
#include <termios.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace kvox::sim {
namespace {

bool MakeRaw(int terminal) {
  termios settings{};
  if (tcgetattr(terminal, &settings) != 0) return false;
  cfmakeraw(&settings);
  return tcsetattr(terminal, TCSANOW, &settings) == 0;
}

}  // namespace

RawTerminal OpenRawTerminal() {
  RawTerminal terminal;
  terminal.master = UniqueFd(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
  std::array<char, 64> path{};
  const int master = terminal.master.get();
  if (master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0 &&
      ptsname_r(master, path.data(), path.size()) == 0) {
    terminal.slave = UniqueFd(open(path.data(), O_RDWR | O_NOCTTY | O_CLOEXEC));
  }
  if (!terminal.slave.valid() || !MakeRaw(terminal.slave.get())) {
    throw std::runtime_error(
        fmt::format("no pseudo-terminal for the control device ({}); is /dev/pts mounted?",
                    std::strerror(errno)));
  }
  terminal.path = path.data();
  return terminal;
}

}  // namespace kvox::sim
