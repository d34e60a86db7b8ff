// Audio whose channels stand in runs: n samples of the first channel, then n of the second, and so
// on; then the next such group. Interleaved audio is the case n = 1. Pure. RT: nothing here
// allocates, locks or logs.
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

  /// Wide enough for whatever a packet's header may say.
  uint64_t GroupSize() const { return uint64_t{channels} * samples * bytes_per_sample; }
};

/// Writes the whole groups of `in` to the same place of `out`, interleaved. Answers how many bytes
/// that were; of what stands behind them in `in`, less than a group, nothing is written. `out` is
/// as long as `in` at least and does not overlap it.
size_t InterleaveRuns(std::span<const std::byte> in, const ChannelRuns& runs,
                      std::span<std::byte> out);

}  // namespace kvox
