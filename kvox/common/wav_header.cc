#include "kvox/common/wav_header.h"

#include <cstring>

namespace kvox {
namespace {

constexpr uint32_t kFmtSize = 16;
constexpr uint32_t kRiffSizeWithoutData = sizeof(WavHeader) - offsetof(WavHeader, wave);

}  // namespace

void InitHeaderWAV(WavHeader* header, int sample_rate, int channels, int bits,
                   unsigned long samples, WavFormat_t format) {
  const uint32_t frame_bits = static_cast<uint32_t>(bits) * static_cast<uint32_t>(channels);
  // The product wraps around at 32 bits and is divided as a signed number.
  const auto bit_rate = static_cast<int32_t>(frame_bits * static_cast<uint32_t>(sample_rate));
  const auto data_size = static_cast<uint32_t>(uint64_t{samples} * frame_bits / 8);
  std::memcpy(header->riff, "RIFF", sizeof header->riff);
  header->riff_size = data_size + kRiffSizeWithoutData;
  std::memcpy(header->wave, "WAVE", sizeof header->wave);
  std::memcpy(header->fmt, "fmt ", sizeof header->fmt);
  header->fmt_size = kFmtSize;
  header->format = format;
  header->channels = static_cast<uint16_t>(channels);
  header->sample_rate = static_cast<uint32_t>(sample_rate);
  header->byte_rate = static_cast<uint32_t>(bit_rate / 8);
  header->block_align = static_cast<uint16_t>(frame_bits / 8);
  header->bits_per_sample = static_cast<uint16_t>(bits);
  std::memcpy(header->data, "data", sizeof header->data);
  header->data_size = data_size;
}

WavFormat_t WavFormatOf(Kvox::DataFormat format) {
  switch (format) {
    case Kvox::DataFormat::FLOAT:
      return WavFormat_t::kFloat;
    case Kvox::DataFormat::SULAW:
      return WavFormat_t::kMulaw;
    default:
      return WavFormat_t::kPcm;
  }
}

}  // namespace kvox
