#include "tests/service/service_fixture.h"

namespace kvox {
namespace {

using ::testing::ElementsAre;

class ProcessorCommands : public ServiceTest {
 protected:
  void SetUp() override {
    MakeNodes({"tapout0", "inject0"});
    StartService();
  }
};

TEST_F(ProcessorCommands, CreatingReplacesAndARefusedTypeStillDeletes) {
  EXPECT_THAT(Call(&KvoxService::ListProcessors).lines, ElementsAre("Kvox processors:   none"));
  EXPECT_THAT(Call(&KvoxService::NewProcessor, Code("pass")).lines,
              ElementsAre("Creating new processor 'pass' of type 'pass'"));
  Call(&KvoxService::NewProcessorWithType, Code("ABCD"), Code("pass"));
  EXPECT_THAT(Call(&KvoxService::NewProcessorWithType, Code("ABCD"), Code("pass")).lines,
              ElementsAre("Creating new processor 'ABCD' of type 'pass'",
                          "Deleting existing processor 'ABCD'\n"));
  EXPECT_THAT(Call(&KvoxService::ListProcessors).lines,
              ElementsAre("Kvox processors: "
                          "\n  Id        Type      InBuffer  OutBuffer Enabled  "
                          "\n  ABCD      pass      -         -         0        "
                          "\n  pass      pass      -         -         0        "));
  const CommandResult refused = Call(&KvoxService::NewProcessorWithType, Code("ABCD"), 5);
  EXPECT_EQ(StatusOf(refused), 2);
  EXPECT_THAT(refused.lines, ElementsAre("Creating new processor 'ABCD' of type ''",
                                         "Deleting existing processor 'ABCD'\n",
                                         "NewProcessorWithType: INVALID PROCESSOR"));
  EXPECT_EQ(StatusOf(Call(&KvoxService::ProcessorInfo, Code("ABCD"))), 2);
  EXPECT_THAT(Call(&KvoxService::ListSupportedProcessors).lines,
              ElementsAre("Supported Kvox processors: pass arel phbt "));
}

TEST_F(ProcessorCommands, DeletingWhatIsNotThereIsNoError) {
  Call(&KvoxService::NewProcessor, Code("pass"));
  EXPECT_THAT(Call(&KvoxService::DeleteProcessor, Code("pass")).lines,
              ElementsAre("Deleting processor 'pass'"));
  const CommandResult again = Call(&KvoxService::DeleteProcessor, Code("pass"));
  EXPECT_EQ(StatusOf(again), 0);
  EXPECT_THAT(again.lines,
              ElementsAre("Deleting processor 'pass'", "Kvox processor 'pass' already deleted"));
}

TEST_F(ProcessorCommands, ClientsCannotMakeThemWithoutEnd) {
  constexpr int32_t kMost = 1024;
  const auto create = [this](int32_t id) {
    return Call(&KvoxService::NewProcessorWithType, id, Code("pass"));
  };
  for (int32_t id = 1; id <= kMost; ++id) ASSERT_EQ(StatusOf(create(id)), 0) << id;
  const CommandResult refused = create(kMost + 1);
  EXPECT_EQ(StatusOf(refused), 1);
  EXPECT_EQ(refused.lines[1],
            "There are 1024 Kvox processors already, which is the most; delete one with "
            "DeleteProcessor");
  EXPECT_EQ(StatusOf(create(kMost)), 0) << "replaced";
  Call(&KvoxService::DeleteProcessor, 1);
  EXPECT_EQ(StatusOf(create(kMost + 1)), 0);
  // Connections of deleted ones are remembered, but not without end either.
  for (int32_t id = 2; id <= 2 * kMost + 1; ++id) {
    create(id);
    Call(&KvoxService::Connect, id, 0, -1);
    Call(&KvoxService::DeleteProcessor, id);
  }
  EXPECT_EQ(log_.Count("Forgot the connections of 1024 deleted processors"), 1u);
}

TEST_F(ProcessorCommands, EnablingReportsTheWakeLockPolicy) {
  Call(&KvoxService::NewProcessorWithType, Code("hwae"), Code("pass"));
  EXPECT_THAT(Call(&KvoxService::ProcessorEnable, Code("hwae"), true).lines,
              ElementsAre("Enable processor 'hwae'",
                          "0 buffers enabled, 1 processor active, wakelock needed: 0"));
  const CommandResult enabled = Call(&KvoxService::ProcessorIsEnabled, Code("hwae"));
  EXPECT_EQ(enabled.value, 1.0f);
  EXPECT_THAT(enabled.lines, ElementsAre("Get processor 'hwae' enabled state",
                                         "Get processor 'hwae' enabled state: 1"));
  EXPECT_THAT(Call(&KvoxService::ProcessorEnable, Code("hwae"), false).lines,
              ElementsAre("Disable processor 'hwae'",
                          "0 buffers enabled, 0 processors active, wakelock needed: 0"));
  EXPECT_THAT(Call(&KvoxService::ProcessorInfo, Code("hwae")).lines,
              ElementsAre("Processor 'hwae' info\n",
                          "  Id:      hwae\n  Type:    pass\n  Enabled: 0\n  Input:   none\n"
                          "  Output:  none\n"));
  for (const auto& missing : {Call(&KvoxService::ProcessorEnable, Code("none"), true),
                              Call(&KvoxService::ProcessorIsEnabled, Code("none"))}) {
    EXPECT_EQ(StatusOf(missing), 2);
    EXPECT_EQ(missing.lines[1], "Kvox processor not found");
  }
}

TEST_F(ProcessorCommands, CodesThatAreNotTextLeaveValidLines) {
  const auto id = static_cast<int32_t>(0xff41c3a9);
  const CommandResult result = Call(&KvoxService::NewProcessorWithType, id, Code("pass"));
  EXPECT_THAT(result.lines, ElementsAre("Creating new processor '?A\xc3\xa9' of type 'pass'"));
}

/// A small call takes up to a megabyte of memory: many of them are bounded together.
TEST_F(ProcessorCommands, StatisticsOfAllProcessorsHaveABound) {
  constexpr int kLargest = ((1 << 20) - 4096) / 4;
  constexpr int kFit = 16;
  const auto set = [&](int id, int entries) {
    return Call(&KvoxService::ProcessorSetStatsMaxBufferEntries, id, entries).status;
  };
  for (int id = 1; id <= kFit + 1; ++id) {
    Call(&KvoxService::NewProcessorWithType, id, Code("pass"));
    EXPECT_EQ(set(id, kLargest), id <= kFit ? CommandStatus::OK : CommandStatus::ERROR) << id;
  }
  EXPECT_EQ(set(1, kLargest), CommandStatus::OK) << "its own are not counted twice";
  EXPECT_EQ(set(1, 0), CommandStatus::OK);
  EXPECT_EQ(set(kFit + 1, kLargest), CommandStatus::OK);
}

}  // namespace
}  // namespace kvox
