// What faults make of the reply to a command. Pure.
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

/// The replies that go out in place of `reply` when the faults strike it. `last` is the reply
/// before it.
std::vector<Reply> SpoilReply(std::span<const FaultSpec> struck, std::span<const std::byte> reply,
                              std::span<const std::byte> last);

}  // namespace kvox::sim
