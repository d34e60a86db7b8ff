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

}  // namespace
}  // namespace kvox
