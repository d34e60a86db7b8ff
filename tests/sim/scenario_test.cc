#include "sim/scenario/scenario.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kvox/common/kvox_packet.h"

namespace kvox::sim {
namespace {

using ::testing::StartsWith;

std::string ErrorOf(std::string_view text) {
  try {
    ParseScenario(text, "s.toml", "");
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
  return "";
}

TEST(Scenario, ReadsEveryKey) {
  const Scenario scenario = ParseScenario(R"(
cores = [7]
tapouts = [3]
injects = []
[[tap]]
name = "ab"
index = 9
core = 7
rate = 16000
channels = 2
format = "int"
bits = 32
block_length = 320
noninterleaved = 160
source = { kind = "sweep", from = 10, to = 20.5, seconds = 2, level = -3 }
sink = { kind = "wav", file = "out.wav" }
)",
                                          "dir/s.toml", "dir");
  const TapConfig& tap = scenario.taps.at(0);
  EXPECT_EQ(DisplayName(tap), "ab.9");
  EXPECT_EQ(tap.name, 0x61620000u);
  EXPECT_EQ(FrameSize(tap.format), 8u);
  EXPECT_EQ(tap.format.sample_rate, 16000u);
  EXPECT_EQ(tap.format.noninterleaved_samples, 160u);
  EXPECT_EQ(tap.block_length, 320u);
  EXPECT_EQ(tap.source.kind, SourceKind::kSweep);
  EXPECT_EQ(tap.source.to, 20.5);
  EXPECT_EQ(tap.source.level, -3);
  EXPECT_EQ(tap.sink.file, "dir/out.wav");
  EXPECT_EQ(tap.sink.where, "dir/s.toml:16: tap[0].sink.file");
}

TEST(Scenario, LettersOfAnyAlphabetAreNoBlanks) {
  EXPECT_THAT(ErrorOf("\xc3\xa9 = 1"), StartsWith("s.toml:1: syntax"));
  EXPECT_THAT(ErrorOf("x = 1 \xef\xbb\xbb"), StartsWith("s.toml:1: syntax"));
  EXPECT_THAT(ErrorOf("x = \"\"\"a\\\n  \xc3\xa9\"\"\""), StartsWith("s.toml:1: cores: missing"));
}

TEST(Scenario, FaultsNameTheLineTheKeyAndWhatIsExpected) {
  const struct {
    const char* lines;  // from line 4 on, in the table of a tap
    const char* error;
  } faults[] = {
      {"rate = \"high\"", "s.toml:7: tap[0].rate: found 'high'; expected a whole number from 8000"},
      {"rate = 7999", "s.toml:7: tap[0].rate: found 7999; expected a whole number"},
      {"colour = 3", "s.toml:7: tap[0].colour: unknown key; expected one of name, index"},
      {"format = \"mp3\"",
       "s.toml:7: tap[0].format: found 'mp3'; expected one of \"int\", \"float\", \"sulaw\""},
      {"bits = 24", "s.toml:4: tap[0].bits: int 24 cannot be carried; expected int 16"},
      {"block_length = 441", "s.toml:4: tap[0].block_length: blocks of 441 frames have 882 bytes"},
      {"channels = 2\nnoninterleaved = 400",
       "s.toml:4: tap[0].block_length: blocks of 480 frames "
       "do not hold whole runs; expected a multiple of 400"},
      {"source = 1", "s.toml:7: tap[0].source: found 1; expected a table"},
      {"source = { level = 1 }", "s.toml:7: tap[0].source.kind: missing; expected one of"},
      {"source = { kind = \"sine\", frequency = 24001 }", "s.toml:7: tap[0].source.frequency: fou"},
      {"source = { kind = \"wav\" }", "s.toml:7: tap[0].source.file: missing; expected a file"},
      {"source = { kind = \"wav\", file = \"a\" }\nsink = { kind = \"wav\", file = \"./a\" }",
       "s.toml:4: tap[0].sink.file: ./a is a source or another sink; expected a file of its own"},
      {"[[tap]]\nname = \"mic\"\ncore = 2",
       "s.toml:7: tap[1].name: core 2 has a tap mic.0 already"},
      {"[[tap]]\nname = \"micro\"\ncore = 2",
       "s.toml:8: tap[1].name: found 'micro'; expected 1 to"},
      {"[[tap]]\nname = \"b\"\ncore = 5", "s.toml:9: tap[1].core: there is no core 5; expected on"},
      {"= 3", "s.toml:7: syntax: "},
  };
  for (const auto& fault : faults) {
    const std::string text = std::string("cores = [2]\ntapouts = [0]\ninjects = [0]\n") +
                             "[[tap]]\nname = \"mic\"\ncore = 2\n" + fault.lines + "\n";
    EXPECT_THAT(ErrorOf(text), StartsWith(fault.error));
  }
  EXPECT_THAT(ErrorOf(""), StartsWith("s.toml:1: cores: missing; expected a list of numbers"));
  EXPECT_THAT(ErrorOf("cores = [2]\ntapouts = [0, 255]"),
              StartsWith("s.toml:2: tapouts: found 255; expected a whole number from 0 to 254"));
  EXPECT_THAT(ErrorOf("cores = [2]\ntapouts = [1, 1]"),
              StartsWith("s.toml:2: tapouts: 1 is listed twice"));
}

}  // namespace
}  // namespace kvox::sim
