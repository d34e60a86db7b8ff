// The audio format of a tap point, and the names of its sample encodings.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>

struct Kvox {
  /// How samples are encoded. Other values pass through unchanged and are shown as unsupported.
  enum class DataFormat : uint8_t { INT = 0, FLOAT = 1, SULAW = 2 };
};

namespace kvox {

/// By encoding: its name, and the letter that tap listings print before the bits of a sample.
struct DataFormatText {
  const char* name;
  char letter;
};
inline constexpr std::array<DataFormatText, 3> kDataFormats = {
    {{"int", 'i'}, {"float", 'f'}, {"sulaw", 'v'}}};
inline constexpr uint8_t kDataFormatCount = kDataFormats.size();

/// Null for any other encoding.
constexpr const char* DataFormatName(Kvox::DataFormat format) {
  const auto index = static_cast<uint8_t>(format);
  return index < kDataFormatCount ? kDataFormats[index].name : nullptr;
}

/// '?' for any other encoding.
constexpr char DataFormatLetter(Kvox::DataFormat format) {
  const auto index = static_cast<uint8_t>(format);
  return index < kDataFormatCount ? kDataFormats[index].letter : '?';
}

/// Audio format as the co-processor's packets carry it (bytes 24 to 35 of a packet's header).
/// A frame is one sample of every channel.
struct KvoxTapFormat {
  uint32_t sample_rate = 0;  // Hz; 0 means that the packets are not timed
  uint8_t channels = 0;
  uint8_t bytes_per_sample = 0;  // of one sample of one channel
  uint8_t data_format = 0;       // a Kvox::DataFormat
  uint8_t reserved = 0;          // carried, never interpreted
  /// Consecutive samples of one channel before those of the next; 0 and 1: interleaved.
  uint32_t noninterleaved_samples = 0;
};
static_assert(sizeof(KvoxTapFormat) == 12 && std::is_trivially_copyable_v<KvoxTapFormat>);
static_assert(offsetof(KvoxTapFormat, channels) == 4 &&
              offsetof(KvoxTapFormat, noninterleaved_samples) == 8);

}  // namespace kvox
