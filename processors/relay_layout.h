// How a relay's client and a tap point lay out the same audio. Pure. RT: nothing here allocates,
// locks or logs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "kvox/common/tap_format.h"

namespace kvox {

/// A telephony tap has its channels in runs of this many 16-bit samples, whatever it says of
/// itself.
inline constexpr uint32_t kTelephonyRun = 480;
inline constexpr size_t kTelephonySampleSize = 2;  // bytes

/// The first channel of a telephony block: `mono` gets 2 bytes a frame, `tap` has 2 bytes a frame
/// and channel.
void TakeFirstChannel(std::span<const std::byte> tap, uint32_t channels, std::span<std::byte> mono);

/// The reverse: every channel of the telephony block gets the mono block.
void SpreadOverChannels(std::span<const std::byte> mono, uint32_t channels,
                        std::span<std::byte> tap);

/// Brings a tap's block into interleaved order, and interleaved audio into the tap's. `in` and
/// `out` have the same length. What does not fill the tap's runs at a block's end stands in shorter
/// runs; bytes behind the last whole frame are carried as they are.
void ToInterleaved(std::span<const std::byte> in, const KvoxTapFormat& tap,
                   std::span<std::byte> out);
void FromInterleaved(std::span<const std::byte> in, const KvoxTapFormat& tap,
                     std::span<std::byte> out);

}  // namespace kvox
