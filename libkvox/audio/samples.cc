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

/// A little-endian integer in the upper bits of 32.
int32_t LoadInt(const std::byte* from, size_t width) {
  uint32_t bits = 0;
  std::memcpy(reinterpret_cast<std::byte*>(&bits) + sizeof bits - width, from, width);
  return static_cast<int32_t>(bits);
}

void StoreInt(double value, size_t width, std::byte* to) {
  const double scale = std::ldexp(1.0, static_cast<int>(width * 8) - 1);
  const auto number = std::llrint(std::clamp(value * scale, -scale, scale - 1));
  std::memcpy(to, &number, width);
}

}  // namespace

void Decode(std::span<const std::byte> data, const SoundFormat& format, std::span<double> samples) {
  const size_t width = format.bits / 8;
  for (size_t i = 0; i < samples.size() && (i + 1) * width <= data.size(); ++i) {
    const std::byte* const from = &data[i * width];
    if (IsFloat(format)) {
      float value;
      std::memcpy(&value, from, sizeof value);
      samples[i] = static_cast<double>(value);
    } else if (format.encoding == DataFormat::SULAW) {
      samples[i] = FromMuLaw(static_cast<uint8_t>(*from)) / 32768.0;
    } else if (width >= 1 && width <= 4) {
      samples[i] = std::ldexp(LoadInt(from, width), -31);
    } else {
      samples[i] = 0;
    }
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
