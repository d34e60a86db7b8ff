#include "manual/roff.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace kvox::manual {
namespace {

using ::testing::HasSubstr;

TEST(Roff, TextsAreReadAsTheyAreWhateverTheyHold) {
  EXPECT_EQ(Escaped("--json"), "\\-\\-json");
  EXPECT_EQ(Escaped("a\\b \"c\" 'd' `e` ~/f^"),
            "a\\eb \\(dqc\\(dq \\(aqd\\(aq \\(gae\\(ga \\(ti/f\\(ha");
  EXPECT_EQ(Escaped(".SH of no section. 'ere neither"), "\\&.SH of no section. \\(aqere neither");
  EXPECT_EQ(Escaped("'ere neither"), "\\&\\(aqere neither");
  for (const char* text : {"\t", "\n", "\xc3\xa9"}) {
    EXPECT_THROW(Escaped(text), std::invalid_argument) << text;
  }
}

TEST(Roff, PlaceholdersDifferFromWhatIsTyped) {
  EXPECT_EQ(Styled("tap list [CORE...]"), "\\fBtap\\fR \\fBlist\\fR [\\fICORE\\fR...]");
  EXPECT_EQ(Styled("-h, --ramp MS"), "\\fB\\-h\\fR, \\fB\\-\\-ramp\\fR \\fIMS\\fR");
  EXPECT_EQ(Styled("74"), "\\fB74\\fR");
}

TEST(Roff, LinesThatBeginWithABlankKeepTheirShape) {
  Page page("x", 1, "does nothing", {.version = "1", .date = "2026-01-01"});
  page.MoreLines("Methods:\n  Ping\n  Debug [WORD...]\nAnd so on,\nand on.\n");
  EXPECT_THAT(page.text(), HasSubstr(".IP\nMethods:\n.IP\n.EX\n  Ping\n  Debug [WORD...]\n.EE\n"
                                     ".IP\nAnd so on,\nand on.\n"));
}

}  // namespace
}  // namespace kvox::manual
