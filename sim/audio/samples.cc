#include "sim/audio/samples.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "kvox/common/kvox_packet.h"

namespace kvox::sim {
namespace {

struct EncodingRow {
  Kvox::DataFormat format;
  uint8_t bytes;
  Encoding encoding;
};
constexpr EncodingRow kEncodings[] = {
    {Kvox::DataFormat::INT, 2, Encoding::kInt16},
    {Kvox::DataFormat::INT, 4, Encoding::kInt32},
    {Kvox::DataFormat::FLOAT, 4, Encoding::kFloat32},
    {Kvox::DataFormat::SULAW, 1, Encoding::kUlaw8},
};

template <typename Integer>
Integer Quantise(double value) {
  constexpr double kScale = -static_cast<double>(std::numeric_limits<Integer>::min());
  return static_cast<Integer>(std::llrint(std::clamp(value * kScale, -kScale, kScale - 1)));
}

template <typename Sample>
void Put(Sample sample, std::byte* at) {
  std::memcpy(at, &sample, sizeof sample);
}

/// Copies a block from one layout into the other: into runs, or out of them.
void Convert(const KvoxTapFormat& format, std::span<const std::byte> from, std::span<std::byte> to,
             bool into_runs) {
  if (format.noninterleaved_samples <= 1 || format.channels <= 1 || FrameSize(format) == 0) {
    std::ranges::copy(from, to.begin());
    return;
  }
  const size_t width = format.bytes_per_sample;
  const size_t channels = format.channels;
  const size_t frames = to.size() / FrameSize(format);
  for (size_t run = 0; run < frames; run += format.noninterleaved_samples) {
    const size_t length = std::min<size_t>(format.noninterleaved_samples, frames - run);
    for (size_t channel = 0; channel < channels; ++channel) {
      for (size_t i = 0; i < length; ++i) {
        const size_t interleaved = ((run + i) * channels + channel) * width;
        const size_t in_runs = (run * channels + channel * length + i) * width;
        std::memcpy(&to[into_runs ? in_runs : interleaved],
                    &from[into_runs ? interleaved : in_runs], width);
      }
    }
  }
}

}  // namespace

std::optional<Encoding> EncodingOf(const KvoxTapFormat& format) {
  for (const EncodingRow& row : kEncodings) {
    if (static_cast<uint8_t>(row.format) == format.data_format &&
        row.bytes == format.bytes_per_sample) {
      return row.encoding;
    }
  }
  return std::nullopt;
}

uint8_t EncodeUlaw(int16_t sample) {
  constexpr int kBias = 132;
  constexpr int kClip = 32635;
  const int magnitude = std::min(std::abs(int{sample}), kClip) + kBias;
  // The bias keeps the magnitude above 7 bits, so the exponent is 0 to 7.
  const int exponent = std::max(24 - std::countl_zero(static_cast<uint32_t>(magnitude)), 0);
  const int mantissa = magnitude >> (exponent + 3) & 0xf;
  return static_cast<uint8_t>(~((sample < 0 ? 0x80 : 0) | exponent << 4 | mantissa));
}

void StoreSample(Encoding encoding, double value, std::byte* at) {
  switch (encoding) {
    case Encoding::kInt16:
      return Put(Quantise<int16_t>(value), at);
    case Encoding::kInt32:
      return Put(Quantise<int32_t>(value), at);
    case Encoding::kFloat32:
      return Put(static_cast<float>(value), at);
    case Encoding::kUlaw8:
      return Put(EncodeUlaw(Quantise<int16_t>(value)), at);
  }
}

void LayOut(const KvoxTapFormat& format, std::span<const std::byte> interleaved,
            std::span<std::byte> block) {
  Convert(format, interleaved, block, true);
}

void Interleave(const KvoxTapFormat& format, std::span<const std::byte> block,
                std::span<std::byte> interleaved) {
  Convert(format, block, interleaved, false);
}

}  // namespace kvox::sim
