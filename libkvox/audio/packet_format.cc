#include "libkvox/audio/packet_format.h"

#include "kvox/common/kvox_utils.h"

namespace kvox::client {

using aidl::kvox::IKvox;

std::optional<SoundFormat> FormatOf(const IKvox::AudioPacket& packet) {
  const auto encoding = static_cast<uint8_t>(packet.format);
  SoundFormat format = {.sample_rate = SampleRateOfCode(static_cast<uint8_t>(packet.sampleRate)),
                        .channels = static_cast<uint8_t>(packet.numChannels),
                        .bits = (static_cast<uint8_t>(packet.bitsPerSample) + 1u) * 8,
                        .encoding = Kvox::DataFormat{encoding}};
  const bool known = format.sample_rate != 0 && format.channels != 0 && format.bits <= 32 &&
                     encoding < kDataFormatCount;
  return known ? std::optional(format) : std::nullopt;
}

int64_t DurationNs(uint64_t frames, uint32_t sample_rate) {
  constexpr double kNsPerSecond = 1e9;
  return sample_rate == 0
             ? 0
             : static_cast<int64_t>(static_cast<double>(frames) * kNsPerSecond / sample_rate);
}

int64_t BlockNs(const IKvox::AudioPacket& packet) {
  const auto format = FormatOf(packet);
  return format ? DurationNs(packet.data.size() / format->FrameSize(), format->sample_rate) : 0;
}

}  // namespace kvox::client
