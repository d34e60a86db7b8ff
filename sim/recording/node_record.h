// What happened at a device node, as recordings have it: docs/record-and-replay.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kvox::sim {

enum class NodeEvent : uint8_t {
  kData,     // bytes passed
  kArrived,  // the node appeared
  kLeft,     // it went
  kOpened,   // by the daemon
  kClosed,
  kError,   // number: errno of a failed open, read or write at the co-processor's side
  kLost,    // number: so many records are missing before this one
  kRights,  // number: its new permission bits
};
inline constexpr size_t kNodeEvents = 8;

/// In the order of NodeEvent.
inline constexpr const char* kNodeEventNames[kNodeEvents] = {"data",   "arrived", "left", "opened",
                                                             "closed", "error",   "lost", "rights"};

struct NodeRecord {
  std::string node;      // "xdv-kvox_tapout0"
  uint64_t time_ns = 0;  // since 1970; never goes back within a recording
  NodeEvent event = NodeEvent::kData;
  bool to_coprocessor = false;
  uint32_t number = 0;
  uint32_t length = 0;  // of the bytes that passed; `bytes` may be their beginning only
  std::vector<std::byte> bytes = {};
};

}  // namespace kvox::sim
