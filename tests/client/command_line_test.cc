#include "client/command_line/command_line.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <sstream>

#include "client/command_line/help.h"
#include "kvox/common/near_matches.h"
#include "libkvox/model/lookup.h"

namespace kvox::client {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

std::vector<std::string> Words(const std::string& line) {
  std::istringstream stream(line);
  return {std::istream_iterator<std::string>(stream), {}};
}

CommandLine Read(const std::string& line) {
  return ReadCommandLine(Words(line), "kvoxctl 1");
}

std::string Refusal(const std::vector<std::string>& words) {
  try {
    ReadCommandLine(words, "kvoxctl 1");
  } catch (const UsageError& error) {
    return error.what();
  }
  return "";
}

TEST(CommandLine, OptionsStandBeforeOrBehindTheVerb) {
  for (const char* line : {"--json --timeout 1.5 processor new art0 arel",
                           "processor new art0 --json arel --timeout=1.5",
                           "--timeout 9 processor new --timeout 1.5 art0 --json arel"}) {
    const CommandLine read = Read(line);
    ASSERT_NE(read.verb, nullptr) << line;
    EXPECT_STREQ(read.verb->words, "processor new");
    EXPECT_EQ(read.in.Get("ID"), "art0");
    EXPECT_EQ(read.in.Get("TYPE"), "arel");
    EXPECT_EQ(read.format, Format::kJson);
    EXPECT_EQ(read.wait, std::chrono::milliseconds(1500));
  }
  EXPECT_THAT(Read("tap list 2 -1 0x3 --short").in.All("CORE"), ElementsAre("2", "-1", "0x3"));
  EXPECT_THAT(Read("--json call Connect pass -1 --x").in.All("METHOD"),
              ElementsAre("Connect", "pass", "-1", "--x"))
      << "a call's words are its own";
}

TEST(CommandLine, WhatIsWrongIsNamedWithTheNextStep) {
  const struct {
    const char* line;
    const char* message;
  } rows[] = {
      {"", "a verb is missing; 'kvoxctl --help' lists them"},
      {"procesor list", "there is no verb 'procesor'; did you mean 'processor'?"},
      {"processor", "processor: a verb is missing; 'kvoxctl processor --help' lists them"},
      {"processor lits", "there is no verb 'lits'; did you mean 'list'?"},
      {"--jason ping", "there is no option '--jason'; did you mean '--json'? 'kvoxctl --help'"},
      {"ping --jsn=1", "there is no option '--jsn'; did you mean '--json'? 'kvoxctl ping --help'"},
      {"ping --timeout", "--timeout: SECONDS missing; 'kvoxctl ping --help'"},
      {"ping --json --short", "--json excludes --short"},
      {"ping --timeout 0", "--timeout: '0' is not a number from 0.001 to 86400"},
      {"ping --timeout 1e9", "--timeout: '1e9' is not a number"},
      {"ping --color no", "--color: 'no' is none of auto, always, never"},
      {"processor new", "ID is missing; 'kvoxctl processor new --help' shows what it takes"},
      {"processor new a b c", "unexpected 'c'; 'kvoxctl processor new --help'"},
      {"buffer list tapout", "DIRECTION: 'tapout' is none of tap-out, inject"},
  };
  EXPECT_THAT(Refusal({"io", "stop", ""}), HasSubstr("an empty word names nothing"));
  EXPECT_THAT(Refusal({"top", "-n", ""}), HasSubstr("--count: an empty word is no value"));
  EXPECT_THAT(Refusal({"ping", "--timeout", ""}), HasSubstr("--timeout: '' is not a number"));
  for (const auto& row : rows)
    EXPECT_THAT(Refusal(Words(row.line)), HasSubstr(row.message)) << row.line;
}

TEST(CommandLine, EveryVerbHasHelpWithAnExampleThatCanBeRead) {
  for (const Verb& verb : AllVerbs()) {
    const CommandLine asked = Read(std::string(verb.words) + " --help");
    EXPECT_EQ(asked.help, HelpOf(verb));
    EXPECT_THAT(asked.help, HasSubstr(std::string("Example: kvoxctl ") + verb.example));
    EXPECT_EQ(Read(verb.example).verb, &verb) << verb.example;
    EXPECT_THAT(Help(), HasSubstr("  " + std::string(verb.words) + " "));
    for (const Argument& argument : verb.arguments) EXPECT_NE(*argument.help, '\0');
  }
  for (const Noun& noun : AllNouns()) {
    EXPECT_EQ(Read(std::string(noun.name) + " -h").help, HelpOf(noun));
  }
  EXPECT_EQ(Read("--version").help, "kvoxctl 1\n");
}

TEST(CommandLine, AnyWordsAreReadOrRefused) {
  const std::string words[] = {"tap",  "list",      "call",  "--json", "--timeout=", "-",   "--",
                               "-h",   "processor", "new",   "\xff",   "--ramp",     "-1",  "1e999",
                               "gain", "--color",   "never", "stats",  "--entries",  "--=", "-x=y"};
  std::minstd_rand random(1);
  int read = 0;
  for (int i = 0; i < 3000; ++i) {
    std::vector<std::string> line(1 + random() % 6);
    for (std::string& word : line) word = words[random() % std::size(words)];
    try {
      const CommandLine command = ReadCommandLine(line, "");
      if (command.verb != nullptr) ++read;
    } catch (const UsageError& error) {
      EXPECT_STRNE(error.what(), "");
    }
  }
  EXPECT_GT(read, 0);
}

TEST(TapWord, HasCoreAndIndexWhereTheyAreGiven) {
  const auto full = ParseTapWord("2:imic.0");
  ASSERT_TRUE(full);
  EXPECT_EQ(full->core, 2);
  EXPECT_EQ(full->code, "imic");
  EXPECT_EQ(full->index, 0);
  const auto bare = ParseTapWord("a:.b");
  ASSERT_TRUE(bare);
  EXPECT_FALSE(bare->core);
  EXPECT_EQ(bare->code, "a:.b");
  EXPECT_FALSE(bare->index);
  for (const char* word : {"", "2:", ".0", "256:imic", "imic.256", "imic5.0", "2:.1"}) {
    EXPECT_FALSE(ParseTapWord(word)) << word;
  }
}

TEST(NearMatches, NearestFirstAndNothingFarOff) {
  EXPECT_EQ(EditDistance("kitten", "Sitting"), 3u);
  EXPECT_EQ(EditDistance("", "abc"), 3u);
  EXPECT_THAT(NearMatches("imix.0", {"sspk.0", "amic.0", "imic.0", "imic.0"}),
              ElementsAre("imic.0", "amic.0"));
  EXPECT_THAT(NearMatches("mic", {"MIC_IN", "PHONEBOOTH"}), ElementsAre("MIC_IN"));
  EXPECT_TRUE(NearMatches("zzzz", {"pass", "art0"}).empty());
  EXPECT_TRUE(NearMatches(std::string(100'000, 'p'), {"pass"}).empty());
  EXPECT_EQ(NotFound("processor", "pas", {"pass", "pas1"}, "try"),
            "there is no processor 'pas'; did you mean 'pass' or 'pas1'? try");
}

}  // namespace
}  // namespace kvox::client
