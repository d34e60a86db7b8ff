#include "web/server/wire.h"

namespace kvox::web {
namespace {

constexpr uint8_t kHasNumber = 1;
constexpr uint8_t kIsEstimated = 2;

template <typename T>
void Append(T value, std::string& message) {
  for (size_t i = 0; i < sizeof value; ++i) {
    message += static_cast<char>(static_cast<uint64_t>(value) >> 8 * i & 0xff);
  }
}

}  // namespace

void AppendAudio(uint32_t point, const Heard& heard, std::string& message) {
  const client::Block& block = *heard.block;
  const int flags = (block.number ? kHasNumber : 0) | (block.estimated ? kIsEstimated : 0);
  Append(static_cast<uint32_t>(kAudioHeader + block.data.size()), message);
  Append(point, message);
  Append(heard.position, message);
  Append(block.missing, message);
  Append(block.stamp.value_or(0), message);
  Append(block.number.value_or(0), message);
  Append(block.format.sample_rate, message);
  Append(static_cast<uint16_t>(block.format.channels), message);
  Append(static_cast<uint8_t>(block.format.bits), message);
  Append(static_cast<uint8_t>(block.format.encoding), message);
  Append(static_cast<uint32_t>(flags), message);
  message.append(reinterpret_cast<const char*>(block.data.data()), block.data.size());
}

}  // namespace kvox::web
