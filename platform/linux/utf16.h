// Text between UTF-8, as programs hold it, and UTF-16, as parcels do. UTF-8 is read as loosely as
// the platform reads it: stray continuation bytes pass as they are, nothing is replaced.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kvox::binder {

/// None when `text` ends within a character or has a character that UTF-16 does not.
std::optional<std::u16string> ToUtf16(std::string_view text);

/// Drops unpaired surrogates.
std::string ToUtf8(std::u16string_view units);

}  // namespace kvox::binder
