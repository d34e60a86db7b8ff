// Four-character codes: 32-bit names of processors, processor types and tap points, the first
// character in the most significant byte (0x70617373 reads "pass").
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace kvox {

using FourCc = uint32_t;

/// The four bytes of a code and a NUL. As a C string it ends at the code's first NUL byte.
using FourCcText = std::array<char, 5>;

consteval FourCc MakeFourCc(const char (&text)[5]) {
  FourCc code = 0;
  for (int i = 0; i < 4; ++i) code = code << 8 | static_cast<uint8_t>(text[i]);
  return code;
}

constexpr FourCcText ToFourCcText(FourCc code) {
  FourCcText text{};
  for (size_t i = 0; i < 4; ++i) text[i] = static_cast<char>(code >> (24 - 8 * i) & 0xff);
  return text;
}

inline std::string ToString(FourCc code) {
  return ToFourCcText(code).data();
}

}  // namespace kvox
