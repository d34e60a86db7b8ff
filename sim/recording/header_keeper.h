// Leaves the audio out of a recording: what it keeps of a data device's bytes are packets' headers.
#pragma once

#include <cstddef>
#include <functional>
#include <span>
#include <vector>

namespace kvox::sim {

/// Takes the bytes of one device as they come. Pure.
class HeaderKeeper {
 public:
  /// A part of them: its length, and its beginning that is kept.
  struct Part {
    std::vector<std::byte> kept;
    size_t length = 0;
  };

  /// The parts, a packet each; of one that goes on in the next bytes, what is there. The beginning
  /// of a header waits for its rest.
  std::vector<Part> Take(std::span<const std::byte> bytes);

  /// The bytes that follow begin anew.
  void Reset() { *this = {}; }

 private:
  std::vector<std::byte> head_;  // of a packet whose header is cut
  size_t payload_ = 0;           // bytes that are left of a packet
};

}  // namespace kvox::sim
