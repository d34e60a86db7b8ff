#include "libkvox/audio/samples.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>

namespace kvox::client {
namespace {

using DataFormat = Kvox::DataFormat;

constexpr int kBias = 132;       // of mu-law
constexpr int kLargest = 32635;  // that it can hold

bool IsFloat(const SoundFormat& format) {
  return format.encoding == DataFormat::FLOAT && format.bits == 32;
}

int FromMuLaw(uint8_t code) {
  code = static_cast<uint8_t>(~code);
  const int magnitude = (((code & 15) << 3) + kBias) << ((code >> 4) & 7);
  return (code & 0x80) != 0 ? kBias - magnitude : magnitude - kBias;
}

uint8_t ToMuLaw(int value) {
  const bool negative = value < 0;
  const int magnitude = std::min(std::abs(value), kLargest) + kBias;
  const int exponent = static_cast<int>(std::bit_width(static_cast<unsigned>(magnitude) >> 8));
  const int mantissa = (magnitude >> (exponent + 3)) & 15;
  const int code = (negative ? 0x80 : 0) | exponent << 4 | mantissa;
  return static_cast<uint8_t>(~code);
}

/// A little-endian integer, scaled.
template <size_t kWidth>
double LoadInt(const std::byte* from) {
  uint32_t bits = 0;
  std::memcpy(reinterpret_cast<std::byte*>(&bits) + sizeof bits - kWidth, from, kWidth);
  return static_cast<int32_t>(bits) * 0x1p-31;
}

/// With the encoding known to the loop, which runs for each sample of each stream.
template <size_t kWidth>
void DecodeEach(std::span<const std::byte> data, std::span<double> samples, auto load) {
  const size_t count = std::min(samples.size(), data.size() / kWidth);
  for (size_t i = 0; i < count; ++i) samples[i] = load(&data[i * kWidth]);
}

void StoreInt(double value, size_t width, std::byte* to) {
  const double scale = std::ldexp(1.0, static_cast<int>(width * 8) - 1);
  const auto number = std::llrint(std::clamp(value * scale, -scale, scale - 1));
  std::memcpy(to, &number, width);
}

}  // namespace

void Decode(std::span<const std::byte> data, const SoundFormat& format, std::span<double> samples) {
  if (IsFloat(format)) {
    DecodeEach<sizeof(float)>(data, samples, [](const std::byte* from) {
      float value;
      std::memcpy(&value, from, sizeof value);
      return static_cast<double>(value);
    });
    return;
  }
  if (format.encoding == DataFormat::SULAW) {
    DecodeEach<1>(data, samples, [](const std::byte* from) {
      return FromMuLaw(static_cast<uint8_t>(*from)) / 32768.0;
    });
    return;
  }
  switch (format.bits / 8) {
    case 1:
      return DecodeEach<1>(data, samples, LoadInt<1>);
    case 2:
      return DecodeEach<2>(data, samples, LoadInt<2>);
    case 3:
      return DecodeEach<3>(data, samples, LoadInt<3>);
    case 4:
      return DecodeEach<4>(data, samples, LoadInt<4>);
    default:
      std::ranges::fill(samples, 0.0);
  }
}

void Encode(std::span<const double> samples, const SoundFormat& format, std::span<std::byte> data) {
  const size_t width = format.bits / 8;
  for (size_t i = 0; i < samples.size() && (i + 1) * width <= data.size(); ++i) {
    std::byte* const to = &data[i * width];
    if (IsFloat(format)) {
      const auto value = static_cast<float>(samples[i]);
      std::memcpy(to, &value, sizeof value);
    } else if (format.encoding == DataFormat::SULAW) {
      const double value = std::clamp(samples[i], -1.0, 1.0) * 32768.0;
      *to = std::byte{ToMuLaw(static_cast<int>(std::lrint(value)))};
    } else {
      StoreInt(samples[i], width, to);
    }
  }
}

std::byte SilenceOf(const SoundFormat& format) {
  return std::byte{format.encoding == DataFormat::SULAW ? uint8_t{0xFF} : uint8_t{0}};
}

}  // namespace kvox::client
