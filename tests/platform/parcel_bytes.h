// Parcels from and to text: bytes in hexadecimal, with any blanks and '|' between them.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/parcel.h"

namespace kvox::binder {

inline std::vector<uint8_t> Bytes(std::string_view hex) {
  std::string digits;
  for (const char c : hex) {
    if (c != ' ' && c != '|' && c != '\n') digits += c;
  }
  std::vector<uint8_t> bytes;
  for (size_t i = 0; i + 1 < digits.size(); i += 2) {
    bytes.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

inline std::string Hex(std::span<const uint8_t> bytes) {
  std::string hex;
  for (size_t i = 0; i < bytes.size(); ++i) {
    constexpr char kDigits[] = "0123456789abcdef";
    if (i > 0 && i % 4 == 0) hex += ' ';
    hex += {kDigits[bytes[i] >> 4], kDigits[bytes[i] & 15]};
  }
  return hex;
}
inline std::string Hex(const AParcel& parcel) {
  return Hex(parcel.data());
}

/// The same text in the form that Hex gives it.
inline std::string Normal(std::string_view hex) {
  return Hex(Bytes(hex));
}

/// Appends the bytes to a parcel.
inline void Append(AParcel& parcel, std::string_view hex) {
  const auto bytes = Bytes(hex);
  EXPECT_EQ(parcel.WriteBytes(bytes.data(), bytes.size()), STATUS_OK);
}

/// A received parcel.
inline AParcel Received(std::string_view hex) {
  return AParcel(Bytes(hex), {});
}

}  // namespace kvox::binder
