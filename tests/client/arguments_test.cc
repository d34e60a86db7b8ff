#include "libkvox/calls/arguments.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/calls/method_outputs.h"

namespace kvox::client {
namespace {

using Value = IKvox::ParamValue;
using ::testing::Optional;

TEST(Arguments, NumbersAreDecimalNegativeOrHexadecimal) {
  const struct {
    const char* word;
    std::optional<int32_t> number;
  } rows[] = {{"0", 0},
              {"-1", -1},
              {"0x10", 16},
              {"0xFFFFFFFF", -1},
              {"2147483647", 2147483647},
              {"-2147483648", INT32_MIN},
              {"2147483648", {}},
              {"0x100000000", {}},
              {"-2147483649", {}},
              {"", {}},
              {"0x", {}},
              {"-0x1", {}},
              {"1 ", {}},
              {"+1", {}},
              {"1.5", {}}};
  for (const auto& row : rows) EXPECT_EQ(ParseInt(row.word), row.number) << row.word;
}

TEST(Arguments, FourCharactersAreACodeUnlessTheyAreDigits) {
  EXPECT_THAT(ParseCode("art0"), Optional(0x61727430));
  EXPECT_THAT(ParseCode("0x10"), Optional(0x30783130));
  EXPECT_THAT(ParseCode("-100"), Optional(0x2d313030));
  EXPECT_THAT(ParseCode("1234"), Optional(1234));
  EXPECT_THAT(ParseCode("0x70617373"), Optional(0x70617373));
  EXPECT_THAT(ParseCode("4294967295"), Optional(-1));
  EXPECT_THAT(ParseCode("-5"), Optional(-5));
  for (const char* word : {"", "abc", "abcde", "4294967296"})
    EXPECT_EQ(ParseCode(word), std::nullopt);
}

TEST(Arguments, EnumeratorsGoByNameOrNumber) {
  EXPECT_THAT(ParseUseCase("MIC_IN"), Optional(IKvox::UseCase::MIC_IN));
  EXPECT_THAT(ParseUseCase("255"), Optional(IKvox::UseCase::UNSPECIFIED));
  EXPECT_THAT(ParseUseCase("6"), Optional(static_cast<IKvox::UseCase>(6)));
  EXPECT_EQ(ParseUseCase("mic_in"), std::nullopt);
  EXPECT_EQ(ParseUseCase("256"), std::nullopt);
  EXPECT_THAT(ParseParameterId("JITTER_BUFFER"), Optional(IKvox::ParameterId::JITTER_BUFFER));
  EXPECT_THAT(ParseParameterId("-7"), Optional(static_cast<IKvox::ParameterId>(-7)));
}

TEST(Arguments, ListsAreOneWord) {
  const auto pairs = ParsePairs("BLOCK_LENGTH:0,9:-1");
  ASSERT_TRUE(pairs);
  ASSERT_EQ(pairs->size(), 2u);
  EXPECT_EQ((*pairs)[1].element, -1);
  EXPECT_EQ(ParsePairs("")->size(), 0u);
  for (const char* word : {"BLOCK_LENGTH", ":1", "9:", "9:1,x"})
    EXPECT_EQ(ParsePairs(word), std::nullopt);

  const auto values = ParseValues("i:-3,v:1,2.5,f:0.5,v:,i:0x10");
  ASSERT_TRUE(values);
  ASSERT_EQ(values->size(), 5u);
  EXPECT_EQ((*values)[1].get<Value::v>(), (std::vector<float>{1, 2.5}));
  EXPECT_EQ((*values)[2].get<Value::f>(), 0.5f);
  EXPECT_TRUE((*values)[3].get<Value::v>().empty());
  for (const char* word :
       {"960", "i:", "x:1", "i:1,2", "f:1e", "f: 1", "f:++1", "f:0x1", "f:1e99", "v:1,x"}) {
    EXPECT_EQ(ParseValues(word), std::nullopt) << word;
  }
  EXPECT_EQ(ParseParamValue("i:1,i:2"), std::nullopt);
}

TEST(Output, JsonHoldsWhatTheMethodAnswered) {
  MethodOutputs outputs;
  outputs.result.status = IKvox::CommandStatus::INVALID_VALUE;
  outputs.result.value = 0.1f;
  outputs.result.lines = {"a \"quoted\"\n", "h\xc3\xa9"};
  outputs.param = Value::make<Value::v>(std::vector<float>{1, -0.5});
  outputs.values = {Value::make<Value::i>(1), Value::make<Value::f>(0.5f)};
  outputs.stats.emplace().measurements = {2.5};
  EXPECT_EQ(
      AsJson(outputs),
      "{\"status\": 4, \"value\": 0.10000000149011612, \"lines\": [\"a \\\"quoted\\\"\\n\", "
      "\"h\xc3\xa9\"], \"param\": {\"v\": [1.0, -0.5]}, \"values\": [{\"i\": 1}, {\"f\": "
      "0.5}], \"stats\": {\"block_count\": 0, \"buffer_entries\": 0, \"average_period\": 0.0, "
      "\"measurements\": [2.5]}}\n");
}

}  // namespace
}  // namespace kvox::client
