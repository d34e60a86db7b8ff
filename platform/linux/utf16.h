// Text between UTF-8, as programs hold it, and UTF-16, as parcels do. The reader of UTF-8 is as
// loose as the platform's: stray continuation bytes pass as they are, nothing is replaced.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace kvox::binder {

/// Units that `text` takes in UTF-16; none when it breaks off within a character or a character has
/// no place in UTF-16.
std::optional<size_t> Utf16Length(std::string_view text);
/// Writes exactly those units, at any alignment.
void WriteUtf16(std::string_view text, uint8_t* units);

/// Bytes that `count` units at any alignment take in UTF-8. An unpaired surrogate takes none.
size_t Utf8Length(const uint8_t* units, size_t count);
/// Writes exactly those bytes.
void WriteUtf8(const uint8_t* units, size_t count, char* text);

}  // namespace kvox::binder
