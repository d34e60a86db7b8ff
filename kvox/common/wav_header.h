// The header of a WAV file with one block of samples. docs/protocol.md has the byte table.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "kvox/common/tap_format.h"

namespace kvox {

static_assert(std::endian::native == std::endian::little, "the file is little-endian");

/// How the samples of a file are encoded.
enum class WavFormat_t : uint16_t { kPcm = 1, kFloat = 3, kMulaw = 7 };

/// The canonical 44 bytes: RIFF, format and data chunk.
struct WavHeader {
  char riff[4];
  uint32_t riff_size;  // of the rest of the file
  char wave[4];
  char fmt[4];
  uint32_t fmt_size;
  WavFormat_t format;
  uint16_t channels;
  uint32_t sample_rate;  // Hz
  uint32_t byte_rate;    // bytes per second
  uint16_t block_align;  // bytes per frame
  uint16_t bits_per_sample;
  char data[4];
  uint32_t data_size;  // bytes of samples
};
static_assert(sizeof(WavHeader) == 44 && std::is_trivially_copyable_v<WavHeader>);
static_assert(offsetof(WavHeader, format) == 20 && offsetof(WavHeader, sample_rate) == 24 &&
              offsetof(WavHeader, block_align) == 32 && offsetof(WavHeader, data_size) == 40);

/// Fills the header of a file with `samples` samples of `bits` bits in each channel. Sizes beyond
/// 32 bits keep their low 32 bits. Any thread.
void InitHeaderWAV(WavHeader* header, int sample_rate, int channels, int bits,
                   unsigned long samples, WavFormat_t format);

/// The encoding of a file that holds samples of this format; kPcm for formats that have no name.
WavFormat_t WavFormatOf(Kvox::DataFormat format);

}  // namespace kvox
