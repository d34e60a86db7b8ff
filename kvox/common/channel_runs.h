// Audio in groups of channel runs: n samples of the first channel, then n of the second, and so on.
// Interleaved audio has n = 1. RT: nothing here allocates, locks or logs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace kvox {

/// The shape of one group; no member is 0.
struct ChannelRuns {
  size_t channels;
  size_t samples;           // of one channel in its run
  size_t bytes_per_sample;  // of one sample of one channel

  /// In bytes; wide enough for anything that a packet's header can hold.
  uint64_t GroupSize() const { return uint64_t{channels} * samples * bytes_per_sample; }
};

/// Interleaves the whole groups of `in` into `out` and returns their size in bytes. An incomplete
/// last group is not written. `out` is at least as long as `in` and does not overlap it.
size_t InterleaveRuns(std::span<const std::byte> in, const ChannelRuns& runs,
                      std::span<std::byte> out);

}  // namespace kvox
