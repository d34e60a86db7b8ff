// Numbers with their units, for people.
#pragma once

#include <cmath>
#include <cstdint>
#include <string>

#include "kvox/common/fixed_text.h"

namespace kvox::client {

/// "1 packet", "2 packets"
inline std::string Counted(uint64_t count, const char* what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

/// Three digits that count: "80 ns", "1.25 us", "10 ms", "2.5 s".
inline std::string TimeText(double ns) {
  constexpr const char* kUnits[] = {"ns", "us", "ms", "s"};
  size_t unit = 0;
  while (unit + 1 < std::size(kUnits) && std::abs(ns) >= 999.5) {
    ns /= 1000;
    ++unit;
  }
  return FormatText<32>(ns < 999.5 ? "%.3g " : "%.0f ", ns) + kUnits[unit];
}

}  // namespace kvox::client
