// Finds the packet that a block of a relay comes from: blocks have no numbers, the flight log's
// records have.
//
// Pure: no I/O. One thread.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <span>

#include "kvox/flight/layout.h"

namespace kvox::client {

class BlockMatcher {
 public:
  /// `relay` is the code of the processor that delivers the blocks.
  explicit BlockMatcher(uint32_t relay) : relay_(relay) {}

  /// Records that have been written since, oldest first.
  void Add(std::span<const flight::PacketRecord> records);

  struct Match {
    flight::PacketRecord record;
    bool renumbered = false;  // the numbers began anew since the match before
  };
  enum class Result { kFound, kNotYet, kNever };

  /// The packet of the next block, which was received at `received_ns` on the packet clock. It is
  /// not recorded before the relay's last client has had its chance, so it may take half a block to
  /// come.
  Result Find(uint64_t received_ns, Match& match);

  /// The packet of a block that was received then will not be waited for: if it is recorded after
  /// all, it is no later block's.
  void GiveUp(uint64_t received_ns) { given_up_ns_ = received_ns; }

 private:
  const uint32_t relay_;
  std::deque<flight::PacketRecord> records_;
  bool renumbered_ = false;
  uint64_t given_up_ns_ = 0;
};

}  // namespace kvox::client
