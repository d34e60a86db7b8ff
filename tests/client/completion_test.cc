#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "client/command_line/command_line.h"
#include "client/completion/completion.h"

namespace kvox::client {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::UnorderedElementsAre;

/// The completions at the end of the line; a blank there begins a new word.
Candidates At(const std::string& line) {
  std::istringstream stream(line);
  std::vector<std::string> words{std::istream_iterator<std::string>(stream), {}};
  if (line.empty() || line.back() == ' ') words.emplace_back();
  return CandidatesFor(words);
}

TEST(Completion, KnowsWhatEachArgumentNames) {
  const struct {
    const char* line;
    Kind kind;
  } rows[] = {
      {"tap info ", Kind::kTap},
      {"--json --timeout 5 tap info 2:im", Kind::kTap},
      {"connect --short pass ", Kind::kTapOut},
      {"connect pass tapout0 --color always ", Kind::kInject},
      {"tap gain imic.0 -1 --ramp ", Kind::kNumber},
      {"tap list 2 3 ", Kind::kCore},
      {"processor new art0 ", Kind::kProcessorType},
      {"capture start all ", Kind::kFile},
      {"record -- ", Kind::kPoint},
      {"play -- -x- ", Kind::kPoint},
      {"param get pass ", Kind::kParameter},
      {"usecase gain M", Kind::kUseCase},
      {"--json call ", Kind::kMethod},
      {"call Debug ", Kind::kText},
      {"tap info imic.0 ", Kind::kTap},
      {"record imic.0 sspk.0 ", Kind::kPoint},
      {"route imic.0 pass ", Kind::kPoint},
      {"route imic.0 pass inject0 ", Kind::kText},
      {"top -n ", Kind::kNumber},
      {"tip info ", Kind::kText},
  };
  for (const auto& row : rows) EXPECT_EQ(At(row.line).kind, row.kind) << row.line;
}

TEST(Completion, OffersVerbsOptionsAndTheirValues) {
  EXPECT_THAT(At("io ").words, UnorderedElementsAre("start", "stop"));
  EXPECT_THAT(At("--json ").words, Contains("wait"));
  EXPECT_THAT(At("").words, Contains("ping"));
  EXPECT_THAT(At("--color ").words, ElementsAre("auto", "always", "never"));
  EXPECT_THAT(At("ping --color=al").words, ElementsAre("auto", "always", "never"));
  EXPECT_EQ(At("ping --color=al").before, "--color=");
  EXPECT_EQ(At("ping --color=al").typed, "al");
  EXPECT_THAT(At("io stop ").words, ElementsAre("all"));
  EXPECT_THAT(At("connect pass ").words, ElementsAre("none"));
  EXPECT_THAT(At("top --sort ").words, Contains("share"));
  EXPECT_THAT(At("top -").words, Contains("--count"));
  EXPECT_THAT(At("record -").words, Contains("--seconds"));
  EXPECT_THAT(At("record --").words, Not(Contains("--version")));
  EXPECT_THAT(At("-").words, Contains("--version"));
  EXPECT_THAT(At("call --").words, IsEmpty());
  EXPECT_THAT(At("tip ").words, IsEmpty());
  EXPECT_THAT(At("ping --json=").words, IsEmpty());
}

TEST(Completion, WhatItOffersTheCommandLineTakes) {
  for (const Verb& verb : AllVerbs()) {
    EXPECT_THAT(At(std::string(verb.noun()) + " ").words, Contains(std::string(verb.name())));
  }
  for (const Option& option : CommonOptions()) {
    for (const char* const choice : option.choices) {
      EXPECT_NO_THROW(ReadCommandLine({"ping", option.name, choice}, "")) << choice;
    }
  }
}

TEST(Completion, AnyWordsHaveAnAnswer) {
  const std::vector<std::string> some = {"tap", "-", "--", "--=", "=", "\xff", "call", "--json="};
  for (const std::string& a : some) {
    for (const std::string& b : some) {
      for (const std::string& c : some) CandidatesFor({a, b, c});
    }
  }
  EXPECT_EQ(CandidatesFor({}).words, At("").words);
}

}  // namespace
}  // namespace kvox::client
