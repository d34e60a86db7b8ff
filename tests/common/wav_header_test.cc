#include "kvox/common/wav_header.h"

#include <gtest/gtest.h>

#include <string_view>

namespace kvox {
namespace {

using namespace std::string_view_literals;

TEST(WavHeader, IsTheCanonicalFortyFourBytes) {
  WavHeader header;
  InitHeaderWAV(&header, 48000, 2, 16, 4800, WavFormat_t::kPcm);
  const std::string_view bytes(reinterpret_cast<const char*>(&header), sizeof header);
  EXPECT_EQ(bytes,
            "RIFF\x24\x4b\0\0WAVEfmt \x10\0\0\0"
            "\1\0\2\0\x80\xbb\0\0"                    // integers, 2 channels, 48000 Hz
            "\0\xee\2\0\4\0\x10\0data\0\x4b\0\0"sv);  // 192000 bytes a second, 4 a frame, 16 bits
}

TEST(WavHeader, KeepsTheLowHalfOfSizesThatDoNotFit) {
  WavHeader header;
  InitHeaderWAV(&header, 192000, 255, 64, 0xFFFFFFFF, WavFormat_t::kMulaw);
  EXPECT_EQ(header.data_size, static_cast<uint32_t>(0xFFFFFFFFull * 255 * 8));
  EXPECT_EQ(header.riff_size, header.data_size + 36);
  // 3133440000 bits a second are negative as a signed 32-bit number.
  EXPECT_EQ(header.byte_rate, static_cast<uint32_t>((3133440000 - 4294967296) / 8));
  EXPECT_EQ(static_cast<int>(header.format), 7);
  InitHeaderWAV(&header, 48000, 1, 32, 1, WavFormat_t::kFloat);
  EXPECT_EQ(static_cast<int>(header.format), 3);
}

}  // namespace
}  // namespace kvox
