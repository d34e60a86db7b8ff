#include "kvox/common/kvox_utils.h"

#include <gtest/gtest.h>

#include "kvox/common/tap_format.h"

namespace kvox {
namespace {

TEST(FormatCodes, OnlyListedRatesAndSizesHaveOne) {
  EXPECT_EQ(SampleRateToEnum(8000), 0);
  EXPECT_EQ(SampleRateToEnum(192000), 7);
  for (unsigned rate : {0u, 44000u, 47999u, 384000u}) EXPECT_EQ(SampleRateToEnum(rate), 255);

  EXPECT_EQ(BitsPerSampleToEnum(8), 0u);
  EXPECT_EQ(BitsPerSampleToEnum(32), 3u);
  for (unsigned bits : {0u, 7u, 12u, 40u}) EXPECT_EQ(BitsPerSampleToEnum(bits), 0xFFFFFFFFu);
}

TEST(DataFormat, NamesAndLettersStopAtThree) {
  EXPECT_STREQ(DataFormatName(Kvox::DataFormat::SULAW), "sulaw");
  EXPECT_EQ(DataFormatLetter(Kvox::DataFormat::SULAW), 'v');
  EXPECT_EQ(DataFormatName(Kvox::DataFormat{3}), nullptr);
  EXPECT_EQ(DataFormatLetter(Kvox::DataFormat{255}), '?');
}

}  // namespace
}  // namespace kvox
