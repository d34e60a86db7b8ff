// Samples as the packets carry them: the four encodings a tap can have, and the two layouts of a
// block: interleaved, or runs of `noninterleaved_samples` samples of one channel before those of
// the next. Callable from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "kvox/common/tap_format.h"

namespace kvox::sim {

enum class Encoding : uint8_t { kInt16, kInt32, kFloat32, kUlaw8 };

/// The encoding that a format's kind and sample size name; none for any other combination.
std::optional<Encoding> EncodingOf(const KvoxTapFormat& format);

/// Writes one sample. 1.0 is full scale: integers are clipped to it, floats are not.
void StoreSample(Encoding encoding, double value, std::byte* at);

/// The eight bits of G.711 µ-law for a 16-bit sample.
uint8_t EncodeUlaw(int16_t sample);

/// Converts an interleaved block to the layout of `format`. Both spans hold the same whole number
/// of frames; the last run is shorter when the frames are no multiple of the run.
void LayOut(const KvoxTapFormat& format, std::span<const std::byte> interleaved,
            std::span<std::byte> block);

/// The reverse.
void Interleave(const KvoxTapFormat& format, std::span<const std::byte> block,
                std::span<std::byte> interleaved);

}  // namespace kvox::sim
