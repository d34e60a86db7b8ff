#include "platform/linux/utf16.h"

#include <cstring>

namespace kvox::binder {
namespace {

constexpr uint32_t kFirstPair = 0x10000;
constexpr uint32_t kLastCodePoint = 0x10ffff;

/// Calls `visit` with each code point; false when the text cannot be read to its end.
template <typename Visit>
bool ForEachCodePoint(std::string_view text, Visit visit) {
  for (size_t at = 0; at < text.size();) {
    const auto lead = static_cast<uint8_t>(text[at]);
    const size_t length = lead < 0xc0 ? 1 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
    if (length > text.size() - at) return false;
    uint32_t code_point = length == 1 ? lead : lead & (0x7fu >> length);
    for (size_t i = 1; i < length; ++i) {
      code_point = code_point << 6 | (static_cast<uint8_t>(text[at + i]) & 0x3f);
    }
    if (code_point > kLastCodePoint) return false;
    visit(code_point);
    at += length;
  }
  return true;
}

template <typename Visit>
void ForEachCodePoint(const uint8_t* units, size_t count, Visit visit) {
  const auto unit_at = [&](size_t index) {
    uint16_t unit;
    std::memcpy(&unit, units + index * sizeof unit, sizeof unit);
    return uint32_t{unit};
  };
  for (size_t at = 0; at < count; ++at) {
    const uint32_t unit = unit_at(at);
    if ((unit & 0xf800) != 0xd800) {
      visit(unit);
    } else if (unit < 0xdc00 && at + 1 < count && (unit_at(at + 1) & 0xfc00) == 0xdc00) {
      visit(kFirstPair + ((unit & 0x3ff) << 10 | (unit_at(++at) & 0x3ff)));
    }
  }
}

}  // namespace

std::optional<size_t> Utf16Length(std::string_view text) {
  size_t length = 0;
  const bool readable =
      ForEachCodePoint(text, [&](uint32_t point) { length += point < kFirstPair ? 1 : 2; });
  return readable ? std::optional(length) : std::nullopt;
}

void WriteUtf16(std::string_view text, uint8_t* units) {
  const auto put = [&](uint32_t value) {
    const auto unit = static_cast<uint16_t>(value);
    std::memcpy(units, &unit, sizeof unit);
    units += sizeof unit;
  };
  ForEachCodePoint(text, [&](uint32_t point) {
    if (point < kFirstPair) {
      put(point);
    } else {
      put(0xd800 | (point - kFirstPair) >> 10);
      put(0xdc00 | ((point - kFirstPair) & 0x3ff));
    }
  });
}

size_t Utf8Length(const uint8_t* units, size_t count) {
  size_t length = 0;
  ForEachCodePoint(units, count, [&](uint32_t point) {
    length += point < 0x80 ? 1 : point < 0x800 ? 2 : point < kFirstPair ? 3 : 4;
  });
  return length;
}

void WriteUtf8(const uint8_t* units, size_t count, char* text) {
  const auto put = [&](uint32_t byte) { *text++ = static_cast<char>(byte); };
  ForEachCodePoint(units, count, [&](uint32_t point) {
    if (point < 0x80) return put(point);
    if (point < 0x800) {
      put(0xc0 | point >> 6);
    } else if (point < kFirstPair) {
      put(0xe0 | point >> 12);
      put(0x80 | (point >> 6 & 0x3f));
    } else {
      put(0xf0 | point >> 18);
      put(0x80 | (point >> 12 & 0x3f));
      put(0x80 | (point >> 6 & 0x3f));
    }
    put(0x80 | (point & 0x3f));
  });
}

}  // namespace kvox::binder
