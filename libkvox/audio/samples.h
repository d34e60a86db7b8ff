// Samples of any format as numbers. Any thread; pure.
#pragma once

#include <cstddef>
#include <span>

#include "kvox/common/sound_format.h"

namespace kvox::client {

/// Decodes `data.size() / (format.bits / 8)` samples; full scale is 1.0. Integers of 8 to 32 bits,
/// floats of 32, mu-law of 8; others are 0.
void Decode(std::span<const std::byte> data, const SoundFormat& format, std::span<double> samples);

/// The reverse; integers beyond full scale are clipped. What is decoded and encoded in one format
/// is the same to the bit, apart from mu-law's second zero.
void Encode(std::span<const double> samples, const SoundFormat& format, std::span<std::byte> data);

/// The byte that silence consists of.
std::byte SilenceOf(const SoundFormat& format);

}  // namespace kvox::client
