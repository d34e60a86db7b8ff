#include "kvox/common/fixed_text.h"

#include <gtest/gtest.h>

#include "kvox/common/four_cc.h"

namespace kvox {
namespace {

TEST(FormatText, CutsWhereItsBufferEnds) {
  EXPECT_EQ(FormatText<8>("%s", "1234567"), "1234567");
  EXPECT_EQ(FormatText<8>("%s%d", "123456", 78), "1234567");
}

TEST(ValidUtf8, ReplacesEachByteThatIsNotWellFormed) {
  const struct {
    const char* text;
    const char* valid;
  } rows[] = {
      {"plain", "plain"},
      {"h\xc3\xa9", "h\xc3\xa9"},                                        // two bytes
      {"\xe2\x82\xac\xf0\x9f\x98\x80", "\xe2\x82\xac\xf0\x9f\x98\x80"},  // three, four
      {"cut \xe2\x82", "cut ??"},
      {"stray \x80 \xff", "stray ? ?"},
      {"overlong \xc0\xaf \xe0\x80\xaf", "overlong ?? ???"},
      {"surrogate \xed\xa0\x80", "surrogate ???"},
      {"beyond \xf4\x90\x80\x80", "beyond ????"},
      {"\xc3(", "?("},
  };
  for (const auto& row : rows) EXPECT_EQ(ValidUtf8(row.text), row.valid);
}

TEST(EscapeControls, LeavesNothingThatEndsALineOrSteersATerminal) {
  const struct {
    const char* text;
    const char* escaped;
  } rows[] = {
      {"plain text \xc3\xa9\n\n", "plain text \xc3\xa9"},
      {"a\nE kvox: forged\tb", "a\\nE kvox: forged\\tb"},
      {"\x1b[2J\r\x7f", "\\x1b[2J\\x0d\\x7f"},
      {"\xc2\x9b"
       "2J \xc2\xa0",
       "\\xc2\\x9b"
       "2J \xc2\xa0"},
      {"cut \xe2\x82", "cut \\xe2\\x82"},
  };
  for (const auto& row : rows) EXPECT_EQ(EscapeControls(row.text), row.escaped);
}

TEST(FourCc, TextEndsAtTheFirstNul) {
  EXPECT_EQ(ToString(0x70617373), "pass");
  EXPECT_EQ(MakeFourCc("arel"), 0x6172656cu);
  EXPECT_EQ(ToString(0x61006200), "a");
  EXPECT_EQ(ToString(5), "");
}

}  // namespace
}  // namespace kvox
