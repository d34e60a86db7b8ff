// A pseudo-terminal in raw mode: what stands for the control device.
#pragma once

#include <string>

#include "kvox/common/unique_fd.h"

namespace kvox::sim {

struct RawTerminal {
  UniqueFd master;   // non-blocking
  UniqueFd slave;    // held open, so that a daemon that closes its end is no hang-up
  std::string path;  // that a daemon opens
};

/// Throws std::runtime_error when there is none.
RawTerminal OpenRawTerminal();

}  // namespace kvox::sim
