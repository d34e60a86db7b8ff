#include "kvox/common/sound_format.h"

namespace kvox {

std::string Describe(const SoundFormat& format) {
  const char* const name = DataFormatName(format.encoding);
  return std::to_string(format.sample_rate) + " Hz, " + std::to_string(format.channels) +
         (format.channels == 1 ? " channel, " : " channels, ") + (name != nullptr ? name : "?") +
         std::to_string(format.bits);
}

}  // namespace kvox
