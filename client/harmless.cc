#include "client/harmless.h"

namespace kvox::client {

std::string Harmless(std::string text) {
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
    if ((byte < ' ' && byte != '\n' && byte != '\t') || byte == 0x7f) {
      text[i] = '?';
    } else if (byte == 0xc2 && next >= 0x80 && next < 0xa0) {  // as UTF-8
      text[i] = text[i + 1] = '?';
    }
  }
  return text;
}

}  // namespace kvox::client
