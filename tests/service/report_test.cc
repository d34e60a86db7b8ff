#include "service/report.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kvox {
namespace {

using ::testing::ElementsAre;
using Lines = std::vector<std::string>;

/// A line that takes so many bytes of a reply, a multiple of 4.
std::string LineOf(size_t bytes) {
  return std::string((bytes - 4) / 2 - 1, 'x');
}

TEST(CutToReply, LeavesOutWhatOneReplyCannotCarry) {
  Lines lines = {LineOf(kMaxReplyLineBytes - 100), LineOf(100)};
  const Lines fit = lines;
  CutToReply(lines);
  EXPECT_EQ(lines, fit);

  lines.back() += "xx";
  CutToReply(lines);
  EXPECT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines.back(), "1 line is missing: one reply cannot carry more");

  lines = {LineOf(2 * kMaxReplyLineBytes), "short",
           "table\n" + LineOf(kMaxReplyLineBytes) + "\nrow"};
  CutToReply(lines);
  EXPECT_THAT(lines, ElementsAre("short", "table\nrow",
                                 "2 lines are missing: one reply cannot carry more"));
}

TEST(CutToReply, CountsAsTheReplyDoes) {
  // Two bytes of UTF-8 are one unit, four are two.
  for (const char* letter : {"\xc3\xa4", "\xf0\x9f\x8e\xa7"}) {
    std::string line;
    const size_t units = std::string_view(letter).size() / 2;
    while (line.size() / 2 + 3 < (kMaxReplyLineBytes - 4) / 2) line += letter;
    Lines lines = {line};
    CutToReply(lines);
    EXPECT_EQ(lines, Lines{line}) << units;
  }
}

}  // namespace
}  // namespace kvox
