#include "kvox/common/fixed_text.h"

#include <algorithm>
#include <cstdint>

namespace kvox {
namespace {

/// Length of the well-formed sequence at the front of `text`, or 0: overlong forms, surrogates and
/// values above U+10FFFF are not well-formed.
size_t SequenceLength(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
  const uint8_t lead = byte(0);
  if (lead < 0x80) return 1;
  const size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
  if (lead < 0xc2 || lead > 0xf4 || text.size() < length) return 0;
  uint8_t low = 0x80;
  uint8_t high = 0xbf;
  if (lead == 0xe0) low = 0xa0;
  if (lead == 0xed) high = 0x9f;
  if (lead == 0xf0) low = 0x90;
  if (lead == 0xf4) high = 0x8f;
  if (byte(1) < low || byte(1) > high) return 0;
  for (size_t i = 2; i < length; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return 0;
  }
  return length;
}

}  // namespace

std::string ValidUtf8(std::string text) {
  for (size_t at = 0; at < text.size();) {
    const size_t length = SequenceLength(std::string_view(text).substr(at));
    if (length == 0) text[at] = '?';
    at += length == 0 ? 1 : length;
  }
  return text;
}

std::string EscapeControls(std::string_view text) {
  while (text.ends_with('\n')) text.remove_suffix(1);
  std::string escaped;
  escaped.reserve(text.size());
  while (!text.empty()) {
    const size_t length = SequenceLength(text);
    const auto first = static_cast<uint8_t>(text[0]);
    const bool c1 = length == 2 && first == 0xc2 && static_cast<uint8_t>(text[1]) < 0xa0;
    const bool plain = length > 1 ? !c1 : length == 1 && first >= ' ' && first != 0x7f;
    if (plain) {
      escaped += text.substr(0, length);
    } else if (first == '\n' || first == '\t') {
      escaped += first == '\n' ? "\\n" : "\\t";
    } else {
      for (const char byte : text.substr(0, std::max<size_t>(length, 1))) {
        escaped += FormatText<8>("\\x%02x", static_cast<unsigned>(static_cast<uint8_t>(byte)));
      }
    }
    text.remove_prefix(std::max<size_t>(length, 1));
  }
  return escaped;
}

}  // namespace kvox
