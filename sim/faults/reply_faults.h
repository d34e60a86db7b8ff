// Applies faults to the reply to a command.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "sim/faults/fault.h"

namespace kvox::sim {

struct Reply {
  uint64_t delay_ns;
  std::vector<std::byte> bytes;
};

/// The replies to send instead of `reply`. `last` is the correct reply before it.
std::vector<Reply> CorruptReply(std::span<const FaultConfig> faults,
                                std::span<const std::byte> reply, std::span<const std::byte> last);

}  // namespace kvox::sim
