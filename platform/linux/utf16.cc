#include "platform/linux/utf16.h"

#include <cstdint>

namespace kvox::binder {
namespace {

constexpr uint32_t kFirstPair = 0x10000;
constexpr uint32_t kLastCodePoint = 0x10ffff;

void AppendUtf8(uint32_t point, std::string* text) {
  const auto append = [&](uint32_t byte) { *text += static_cast<char>(byte); };
  if (point < 0x80) return append(point);
  if (point < 0x800) {
    append(0xc0 | point >> 6);
  } else {
    if (point < kFirstPair) {
      append(0xe0 | point >> 12);
    } else {
      append(0xf0 | point >> 18);
      append(0x80 | (point >> 12 & 0x3f));
    }
    append(0x80 | (point >> 6 & 0x3f));
  }
  append(0x80 | (point & 0x3f));
}

}  // namespace

std::optional<std::u16string> ToUtf16(std::string_view text) {
  std::u16string units;
  units.reserve(text.size());
  for (size_t at = 0; at < text.size();) {
    const auto lead = static_cast<uint8_t>(text[at]);
    const size_t length = lead < 0xc0 ? 1 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
    if (length > text.size() - at) return std::nullopt;
    uint32_t point = length == 1 ? lead : lead & (0x7fu >> length);
    for (size_t i = 1; i < length; ++i) {
      point = point << 6 | (static_cast<uint8_t>(text[at + i]) & 0x3f);
    }
    if (point > kLastCodePoint) return std::nullopt;
    if (point < kFirstPair) {
      units += static_cast<char16_t>(point);
    } else {
      units += static_cast<char16_t>(0xd800 | (point - kFirstPair) >> 10);
      units += static_cast<char16_t>(0xdc00 | ((point - kFirstPair) & 0x3ff));
    }
    at += length;
  }
  return units;
}

std::string ToUtf8(std::u16string_view units) {
  std::string text;
  text.reserve(units.size());
  for (size_t at = 0; at < units.size(); ++at) {
    const uint32_t unit = units[at];
    if ((unit & 0xf800) != 0xd800) {
      AppendUtf8(unit, &text);
    } else if (unit < 0xdc00 && at + 1 < units.size() && (units[at + 1] & 0xfc00) == 0xdc00) {
      AppendUtf8(kFirstPair + ((unit & 0x3ff) << 10 | (units[++at] & 0x3ffu)), &text);
    }
  }
  return text;
}

}  // namespace kvox::binder
