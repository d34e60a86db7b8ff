#include "kvox/common/wav_header.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace kvox {
namespace {

std::string Hex(const WavHeader& header) {
  unsigned char bytes[sizeof header];
  std::memcpy(bytes, &header, sizeof header);
  std::string text;
  for (const unsigned char byte : bytes) {
    text += "0123456789abcdef"[byte >> 4];
    text += "0123456789abcdef"[byte & 15];
  }
  return text;
}

TEST(WavHeader, IsTheCanonicalFortyFourBytes) {
  WavHeader header;
  InitHeaderWAV(&header, 48000, 2, 16, 4800, WavFormat_t::kPcm);
  EXPECT_EQ(Hex(header),
            "52494646"  // RIFF
            "244b0000"  // 19236 bytes follow
            "57415645"  // WAVE
            "666d7420"  // fmt
            "10000000"
            "0100"      // integers
            "0200"      // 2 channels
            "80bb0000"  // 48000 Hz
            "00ee0200"  // 192000 bytes a second
            "0400"      // 4 bytes a frame
            "1000"      // 16 bits
            "64617461"  // data
            "004b0000");
  InitHeaderWAV(&header, 16000, 1, 32, 3, WavFormat_t::kFloat);
  EXPECT_EQ(Hex(header),
            "524946463000000057415645666d742010000000030001"
            "00803e000000fa000004002000646174610c000000");
}

TEST(WavHeader, KeepsTheLowHalfOfSizesThatDoNotFit) {
  WavHeader header;
  InitHeaderWAV(&header, 192000, 255, 64, 0xFFFFFFFF, WavFormat_t::kMulaw);
  EXPECT_EQ(header.data_size, static_cast<uint32_t>(0xFFFFFFFFull * 255 * 8));
  EXPECT_EQ(header.riff_size, header.data_size + 36);
  // 3133440000 bits a second are negative as a signed 32-bit number.
  EXPECT_EQ(header.byte_rate, static_cast<uint32_t>((3133440000 - 4294967296) / 8));
  EXPECT_EQ(static_cast<int>(header.format), 7);
}

TEST(WavHeader, NamesTheEncodingOfEveryDataFormat) {
  EXPECT_EQ(WavFormatOf(Kvox::DataFormat::INT), WavFormat_t::kPcm);
  EXPECT_EQ(WavFormatOf(Kvox::DataFormat::FLOAT), WavFormat_t::kFloat);
  EXPECT_EQ(WavFormatOf(Kvox::DataFormat::SULAW), WavFormat_t::kMulaw);
  EXPECT_EQ(WavFormatOf(static_cast<Kvox::DataFormat>(9)), WavFormat_t::kPcm);
}

}  // namespace
}  // namespace kvox
