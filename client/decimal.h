// Decimal fractions from text. std::from_chars would do, but for these types it is missing in the
// C++ library of phones.
#pragma once

#include <optional>
#include <string_view>

namespace kvox::client {

/// The whole word as a number with a decimal point, whatever the locale; no plus sign, no blanks,
/// no hexadecimal digits. None where it is something else or out of range. Float or double; any
/// thread.
template <typename Number>
std::optional<Number> ParseDecimal(std::string_view word);

}  // namespace kvox::client
