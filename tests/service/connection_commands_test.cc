#include "tests/service/service_fixture.h"

namespace kvox {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class ConnectionCommands : public ServiceTest {
 protected:
  void SetUp() override {
    MakeNodes({"tapout0", "tapout1", "inject0", "inject1"});
    StartService();
    Call(&KvoxService::NewProcessorWithType, Code("aaaa"), Code("pass"));
    Call(&KvoxService::NewProcessorWithType, Code("bbbb"), Code("pass"));
  }
};

TEST_F(ConnectionCommands, ConnectSaysWhatItDoes) {
  EXPECT_THAT(Call(&KvoxService::Connect, Code("aaaa"), 1, 0).lines,
              ElementsAre("Connect Kvox processor: tap-out buffer 1 --> processor aaaa --> inject "
                          "buffer 0\n",
                          "  Set aaaa input to tapout1\n  Set aaaa output to inject0\n"));
  EXPECT_THAT(Call(&KvoxService::Connect, Code("bbbb"), 0, 0).lines.back(),
              "  inject0 is already connected to aaaa. Disconnecting\n"
              "  Set bbbb input to tapout0\n  Set bbbb output to inject0\n");
  EXPECT_THAT(ProcessorRows(), HasSubstr("\n  aaaa      pass      tapout1   -         0"));
  EXPECT_THAT(ProcessorRows(), HasSubstr("\n  bbbb      pass      tapout0   inject0   0"));
  EXPECT_EQ(Call(&KvoxService::Connect, Code("bbbb"), -1, -1).lines.back(),
            "  Set bbbb input to NC\n  Set bbbb output to NC\n");
}

TEST_F(ConnectionCommands, AProcessorLeavesTheBuffersItHadBefore) {
  Call(&KvoxService::Connect, Code("aaaa"), 0, 0);
  Call(&KvoxService::Connect, Code("aaaa"), 1, 1);
  EXPECT_THAT(BufferRows(), HasSubstr("\n  0         tapout0   -         -         0"));
  EXPECT_THAT(BufferRows(), HasSubstr("\n  1         tapout1   -         aaaa      0"));
  EXPECT_THAT(BufferRows(), HasSubstr("\n  0         inject0   -         -         0"));
  EXPECT_THAT(BufferRows(), HasSubstr("\n  1         inject1   aaaa      -         0"));
  Call(&KvoxService::DeleteProcessor, Code("aaaa"));
  EXPECT_THAT(BufferRows(), ::testing::Not(HasSubstr("aaaa")));
}

TEST_F(ConnectionCommands, ARefusalLeavesTheWiringOfAFedProcessorAlone) {
  Call(&KvoxService::Connect, Code("aaaa"), 0, 0);
  const std::string before = BufferRows() + ProcessorRows();
  EXPECT_EQ(StatusOf(Call(&KvoxService::Connect, Code("aaaa"), 1, 7)), 3);
  EXPECT_EQ(StatusOf(Call(&KvoxService::Connect, Code("aaaa"), -1, 7)), 3);
  EXPECT_EQ(BufferRows() + ProcessorRows(), before);
  Restart();
  EXPECT_EQ(BufferRows() + ProcessorRows(), before) << "nor is it saved";
}

TEST_F(ConnectionCommands, ARefusalLeavesTheRegistrationOfAnUnfedProcessor) {
  const struct {
    int32_t processor, tapout, inject;
    int status;
    const char* text;
  } rows[] = {
      {Code("zzzz"), 0, 0, 2, "Invalid processor"},
      {Code("aaaa"), 9, 0, 3, "Invalid tap out buffer"},
      {Code("aaaa"), -2, 0, 3, "Invalid tap out buffer"},
      {Code("aaaa"), 0, 7, 3, "Invalid inject buffer"},
  };
  for (const auto& row : rows) {
    const CommandResult result = Call(&KvoxService::Connect, row.processor, row.tapout, row.inject);
    EXPECT_EQ(StatusOf(result), row.status);
    EXPECT_EQ(result.lines[1], row.text);
  }
  EXPECT_THAT(BufferRows(), HasSubstr("\n  0         tapout0   -         aaaa      0"));
  EXPECT_THAT(ProcessorRows(), HasSubstr("\n  aaaa      pass      -         -         0"));
}

TEST_F(ConnectionCommands, ConnectTapNamesBothKindsOfMissingBuffersAlike) {
  EXPECT_EQ(Call(&KvoxService::ConnectTap, 2, Code("imic"), 0, 5, 0).lines[1],
            "Tap out buffer 5 not found");
  EXPECT_EQ(Call(&KvoxService::ConnectTap, 2, Code("imic"), 0, 0, 7).lines[1],
            "Tap out buffer 7 not found");
  EXPECT_TRUE(link_.opcodes.empty());
}

TEST_F(ConnectionCommands, ConnectTapTellsTheBufferTheTapsFormat) {
  link_.taps = {{.tap = MakeFourCc("imic"),
                 .core = 2,
                 .sample_rate = 16000,
                 .channels = 1,
                 .bytes_per_sample = 4}};
  Call(&KvoxService::Connect, Code("aaaa"), 0, -1);
  EXPECT_EQ(StatusOf(Call(&KvoxService::ConnectTap, 2, Code("imic"), 0, 0, 0)), 0);
  EXPECT_EQ(log_.Count("tapout0 SetRxFormat set format sr:16000 nch:1 Bps:4 noninterleaved:0"), 1u);
  EXPECT_EQ(log_.Count("tapout0 SetRxFormat on processor aaaa"), 1u);
  // A client that registers later is notified too.
  Call(&KvoxService::Connect, Code("bbbb"), 0, -1);
  EXPECT_EQ(log_.Count("tapout0 RegisterOutput set format sr:16000 nch:1 bps:4 noninterleaved:0"),
            1u);
  link_.failures[CMD_TAP_INFO_ID] = -1;
  EXPECT_THAT(Call(&KvoxService::ConnectTap, 2, Code("imic"), 0, 0, 0).lines[1],
              "Error setting audio format from tap point");
}

TEST_F(ConnectionCommands, GraphShowsTapsBuffersAndStates) {
  link_.taps = {{.tap = MakeFourCc("ABCD"),
                 .index = 1,
                 .core = 3,
                 .enabled = 0,
                 .tapout_buffer = 0,
                 .inject_buffer = kNoBuffer},
                {.tap = MakeFourCc("EFGH"),
                 .core = 4,
                 .enabled = 1,
                 .tapout_buffer = kNoBuffer,
                 .inject_buffer = 1}};
  Call(&KvoxService::Connect, Code("aaaa"), 0, 1);
  Call(&KvoxService::ProcessorEnable, Code("aaaa"), true);
  EXPECT_THAT(Call(&KvoxService::ShowGraph).lines,
              ElementsAre("Connection graph:",
                          "  ABCD.1 (disabled) --> tapout0 --> aaaa --> inject1 --> EFGH.0\n"
                          "  NC --> NC --> bbbb (disabled) --> NC --> NC"));
  link_.failures[CMD_KVOX_TAP_LIST_ID] = -1;
  EXPECT_EQ(Call(&KvoxService::ShowGraph).lines[1],
            "Error retrieving list of tap points from Kvo core 2");
}

TEST_F(ConnectionCommands, StartIoSwitchesTheChainAndHoldsTheHostAwake) {
  Call(&KvoxService::Connect, Code("aaaa"), 0, 1);
  Call(&KvoxService::ProcessorEnable, Code("aaaa"), true);
  EXPECT_THAT(Call(&KvoxService::StartIo, 0).lines,
              ElementsAre("Enable tap-out buffer 0\n",
                          "1 buffers enabled, 1 processor active, wakelock needed: 1"));
  EXPECT_TRUE(link_.wake_lock);
  EXPECT_THAT(BufferRows(), HasSubstr("\n  1         inject1   aaaa      -         1"));
  EXPECT_THAT(Call(&KvoxService::StopIo, -1).lines,
              ElementsAre("Disable all buffers\n",
                          "0 buffers enabled, 0 processors active, wakelock needed: 0"));
  EXPECT_FALSE(link_.wake_lock);
  EXPECT_THAT(Call(&KvoxService::StartIo, 42).lines, ElementsAre("Enable tap-out buffer 42\n"));
}

TEST_F(ConnectionCommands, StopIoOfEverythingIncludesWhatIsAway) {
  Call(&KvoxService::Connect, Code("aaaa"), 0, 1);
  Call(&KvoxService::StartIo, 0);
  Leave("tapout0");
  Call(&KvoxService::StopIo, -1);
  Arrive("tapout0");
  recovery_->Run();
  EXPECT_FALSE(link_.wake_lock);
  EXPECT_THAT(BufferRows(), HasSubstr("\n  1         inject1   aaaa      -         0"));
}

}  // namespace
}  // namespace kvox
