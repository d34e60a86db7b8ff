#include "tests/service/service_fixture.h"

namespace kvox {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;
using Id = IKvox::ParameterId;
using Value = IKvox::ParamValue;

constexpr int32_t kPass = Code("pass");
constexpr char kPassSet[] = "SetParameter processor:1885434739 param:";

class ParameterCommands : public ServiceTest {
 protected:
  void SetUp() override {
    MakeNodes({"tapout0", "inject0"});
    StartService();
    Call(&KvoxService::NewProcessor, kPass);
    log_.Take();
  }

  CommandResult Set(Id id, const Value& value, int32_t processor = kPass) {
    CommandResult result;
    EXPECT_TRUE(service_->SetParameter(processor, id, 0, value, &result).isOk());
    return result;
  }
  CommandResult Get(Id id, Value& value, int32_t processor = kPass) {
    CommandResult result;
    EXPECT_TRUE(service_->GetParameter(processor, id, 0, &value, &result).isOk());
    return result;
  }
  int32_t BlockLength() {
    Value value;
    Get(Id::BLOCK_LENGTH, value);
    return value.get<Value::i>();
  }
};

TEST_F(ParameterCommands, SettingShowsTheValueAndItsRefusal) {
  const struct {
    Id id;
    Value value;
    int status;
    std::string text;  // after the processor
    const char* outcome;
  } rows[] = {
      {Id::BLOCK_LENGTH, 960, 0, "BLOCK_LENGTH element:0 value.i:960", nullptr},
      {Id::BLOCK_LENGTH, -480, 4, "BLOCK_LENGTH element:0 value.i:-480", "INVALID_VALUE"},
      {Id::TEST_MODE, std::vector<float>{1}, 4, "TEST_MODE element:0 value has invalid tag",
       "INVALID_VALUE"},
      {Id::VERSION, 1, 6, "VERSION element:0 value.i:1", "Unknown error"},
      {Id{9}, 1, 6, "9 element:0 value.i:1", "Unknown error"},
  };
  for (const auto& row : rows) {
    const CommandResult result = Set(row.id, row.value);
    EXPECT_EQ(StatusOf(result), row.status) << row.text;
    Lines lines = {kPassSet + row.text};
    if (row.outcome != nullptr) lines.push_back(std::string("SetParameter: ") + row.outcome);
    EXPECT_EQ(result.lines, lines);
  }
  EXPECT_EQ(BlockLength(), 960);
  EXPECT_THAT(Set(Id::TEST_MODE, 1, 5).lines,
              ElementsAre("SetParameter processor:5 param:TEST_MODE element:0 value.i:1",
                          "SetParameter: INVALID PROCESSOR"));
}

TEST_F(ParameterCommands, GettingAnswersWithoutLines) {
  Value value;
  const CommandResult got = Get(Id::BLOCK_LENGTH, value);
  EXPECT_EQ(StatusOf(got), 0);
  EXPECT_THAT(got.lines, IsEmpty());
  EXPECT_EQ(value, Value(4800));
  EXPECT_EQ(log_.Count("I GetParameter processor:1885434739 param:BLOCK_LENGTH element:0: 4800"),
            1u);
  for (const auto& [id, processor, status] :
       {std::tuple{Id{9}, kPass, 3}, std::tuple{Id::VERSION, 5, 2}}) {
    const CommandResult refused = Get(id, value, processor);
    EXPECT_EQ(StatusOf(refused), status);
    EXPECT_THAT(refused.lines, IsEmpty());
  }
}

TEST_F(ParameterCommands, BlockSizesGoOnToTheTapPointAndStayWhenItRefuses) {
  Call(&KvoxService::Connect, kPass, 0, -1);
  Call(&KvoxService::ConnectTap, 2, Code("imic"), 0, 0, -1);
  link_.opcodes.clear();
  link_.sent.clear();
  EXPECT_EQ(StatusOf(Set(Id::BLOCK_LENGTH, 480)), 0);
  EXPECT_EQ(StatusOf(Set(Id::JITTER_BUFFER, 1000)), 0);
  EXPECT_THAT(link_.opcodes,
              ElementsAre(CMD_KVOX_TAP_SET_BLOCK_LEN_ID, CMD_KVOX_TAP_SET_JITTER_BUFFER_ID));
  link_.failures[CMD_KVOX_TAP_SET_BLOCK_LEN_ID] = -5;
  const CommandResult refused = Set(Id::BLOCK_LENGTH, 960);
  EXPECT_EQ(StatusOf(refused), 1);
  EXPECT_THAT(refused.lines, ElementsAre(EndsWith(" value.i:960"), "SetParameter: ERROR"));
  EXPECT_EQ(BlockLength(), 960);
}

TEST_F(ParameterCommands, BulkCommandsAreBoundedAndOnlyOneOfThemActs) {
  using Pair = IKvox::ParamIdElementPair;
  const auto pairs = [](size_t count) { return std::vector<Pair>(count, Pair{Id::VERSION, 0}); };
  std::vector<Value> values;
  const auto set = [&](const std::vector<Pair>& list) {
    CommandResult result;
    EXPECT_TRUE(service_->SetParameterBulk(kPass, list, {Value(1)}, &result).isOk());
    return result;
  };
  const auto get = [&](const std::vector<Pair>& list, int32_t processor = kPass) {
    CommandResult result;
    EXPECT_TRUE(service_->GetParameterBulk(processor, list, &result, &values).isOk());
    return result;
  };
  EXPECT_THAT(set(pairs(64)).lines,
              ElementsAre("SetParameterBulk processor:1885434739 [64 parameters]"));
  EXPECT_EQ(StatusOf(set(pairs(65))), 1);
  EXPECT_EQ(StatusOf(set({{Id::BLOCK_LENGTH, 0}})), 0);
  EXPECT_EQ(BlockLength(), 4800);

  EXPECT_EQ(StatusOf(get({{Id::BLOCK_LENGTH, 0}, {Id::AUDIO_FORMAT, 0}})), 0);
  EXPECT_THAT(values, ElementsAre(Value(4800), Value(5)));
  const CommandResult refused = get({{Id::BLOCK_LENGTH, 0}, {Id{9}, 0}});
  EXPECT_EQ(StatusOf(refused), 3);
  EXPECT_THAT(refused.lines,
              ElementsAre("GetParameterBulk processor:1885434739 [2 parameters]",
                          "Error getParameter processor:1885434739 param:9 element:0"));
  EXPECT_THAT(values, IsEmpty());
  EXPECT_EQ(StatusOf(get(pairs(65))), 1);
  EXPECT_EQ(StatusOf(get(pairs(1), 5)), 2);
}

TEST_F(ParameterCommands, StatisticsAndAudioAnswerByStatusAlone) {
  IKvox::ProcessorStats stats;
  stats.blockCount = 77;
  const auto get_stats = [&](int32_t processor) {
    CommandResult result;
    EXPECT_TRUE(service_->ProcessorGetStats(processor, &stats, &result).isOk());
    return result;
  };
  CommandResult result = get_stats(5);
  EXPECT_EQ(StatusOf(result), 2);
  EXPECT_EQ(stats.blockCount, 77);
  EXPECT_EQ(StatusOf(Call(&KvoxService::ProcessorSetStatsMaxBufferEntries, kPass, 8)), 0);
  for (const int entries : {-1, 1 << 18}) {  // more than a reply could carry
    EXPECT_EQ(StatusOf(Call(&KvoxService::ProcessorSetStatsMaxBufferEntries, kPass, entries)), 1);
  }
  EXPECT_EQ(StatusOf(Call(&KvoxService::ProcessorResetStats, kPass)), 0);
  result = get_stats(kPass);
  EXPECT_EQ(StatusOf(result), 0);
  EXPECT_EQ(stats.bufferEntries, 8);
  EXPECT_EQ(stats.blockCount, 0);
  result = {};
  EXPECT_TRUE(service_->SendAudio(kPass, IKvox::AudioPacket(), &result).isOk());
  EXPECT_EQ(StatusOf(result), 0);
  EXPECT_EQ(StatusOf(Call(&KvoxService::RegisterReceiveAudioCallback, kPass, nullptr)), 0);
  EXPECT_EQ(StatusOf(Call(&KvoxService::RegisterReceiveAudioCallback, 5, nullptr)), 2);
  EXPECT_THAT(result.lines, IsEmpty());
}

}  // namespace
}  // namespace kvox
