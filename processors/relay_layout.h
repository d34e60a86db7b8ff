// How a relay's client and a tap point lay out the same audio. RT: nothing here allocates, locks or
// logs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "kvox/common/tap_format.h"

namespace kvox {

/// Telephony taps have their channels in runs of this many 16-bit samples, whatever their format
/// says.
inline constexpr uint32_t kTelephonyRun = 480;
inline constexpr size_t kTelephonySampleSize = 2;  // bytes

/// The first channel of a telephony block: `mono` gets 2 bytes a frame, `tap` has 2 bytes a frame
/// and channel.
void TakeFirstChannel(std::span<const std::byte> tap, uint32_t channels, std::span<std::byte> mono);

/// The reverse: every channel of the telephony block gets the mono block.
void SpreadOverChannels(std::span<const std::byte> mono, uint32_t channels,
                        std::span<std::byte> tap);

/// Converts a tap's block to interleaved order, and back. `in` and `out` have the same length. At a
/// block's end, frames that do not fill the tap's runs are in shorter runs; bytes after the last
/// whole frame are copied as they are.
void ToInterleaved(std::span<const std::byte> in, const KvoxTapFormat& tap,
                   std::span<std::byte> out);
void FromInterleaved(std::span<const std::byte> in, const KvoxTapFormat& tap,
                     std::span<std::byte> out);

}  // namespace kvox
