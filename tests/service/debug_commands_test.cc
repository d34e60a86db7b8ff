#include "tests/service/service_fixture.h"
#include "tests/support/process.h"

namespace kvox {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class DebugCommands : public ServiceTest {
 protected:
  void SetUp() override {
    MakeNodes({"tapout0", "tapout3", "inject0"});
    StartService();
  }

  CommandResult Debug(const std::string& line) {
    CommandResult result;
    EXPECT_TRUE(service_->Debug(Words(line), &result).isOk());
    return result;
  }
};

TEST_F(DebugCommands, HelpIsOneLongLine) {
  EXPECT_THAT(Debug("").lines, ElementsAre(HasSubstr("debug commands:  buffer_init  ")));
  EXPECT_THAT(Debug("help me").lines, ElementsAre(HasSubstr("Debug help medebug commands: ")));
}

TEST_F(DebugCommands, DumpsTheNamedBufferAndRefusesWhatItDoesNotUnderstand) {
  for (const char* line :
       {"reboot", "buffer_dump tapout", "buffer_dump tapout x", "buffer_dump tapout 00",
        "buffer_dump tapout 1", "buffer_dump inject 3", "buffer_dump graph 0",
        "buffer_dump tapout 0 0", "buffer_dump tapout -1"}) {
    const CommandResult result = Debug(line);
    EXPECT_EQ(StatusOf(result), 3);
    EXPECT_THAT(result.lines,
                ElementsAre(std::string("Debug ") + line, "Debug: INVALID PARAMETER"));
  }
  EXPECT_EQ(log_.Count("buffer is null"), 0u);
  EXPECT_THAT(Debug("buffer_dump tapout 3rd").lines, ElementsAre("Debug buffer_dump tapout 3rd"));
  EXPECT_EQ(StatusOf(Debug("buffer_dump inject 0")), 0);
  EXPECT_EQ(log_.Count("E tapout3 buffer is null") + log_.Count("E inject0 buffer is null"), 2u);
}

TEST_F(DebugCommands, DroppedBuffersLetTheHostSleepAndComeBackDisabled) {
  for (const std::string word : {"buffer_init", "buffer_deinit"}) {
    Call(&KvoxService::StartIo, 0);
    ASSERT_TRUE(link_.wake_lock);
    RemoveNodes({"tapout3"});
    EXPECT_THAT(Debug(word).lines, ElementsAre("Debug " + word));
    EXPECT_FALSE(link_.wake_lock);
    EXPECT_EQ(log_.Count("Buffer tapout0 disabled, I/O thread end"), 1u);
    log_.Take();
    if (word == "buffer_init") {
      EXPECT_THAT(BufferRows(), HasSubstr("\n  0         tapout0   -         -         0"));
      EXPECT_THAT(BufferRows(), ::testing::Not(HasSubstr("tapout3")));
    }
  }
  EXPECT_EQ(BufferRows(), "  none\n  none");
  EXPECT_THAT(Debug("capture start all").lines[0], "No buffers");
}

TEST_F(DebugCommands, HealthNamesABufferThatGaveUpUntilItIsStartedAgain) {
  io_.failing = true;
  EXPECT_EQ(StatusOf(Call(&KvoxService::StartIo, 0)), 0);
  ASSERT_TRUE(log_.WaitFor("tapout0 ioProcess end"));
  EXPECT_TRUE(WaitFor(
      [&] { return Debug("health").lines == Lines{kHealthGaveUp + std::string("tapout0")}; }));
  EXPECT_THAT(BufferRows(), HasSubstr("tapout0   -         -         1")) << "as clients left it";
  io_.failing = false;
  log_.Take();
  EXPECT_EQ(StatusOf(Call(&KvoxService::StartIo, 0)), 0);
  EXPECT_EQ(log_.Count("I/O thread start"), 1u);
  EXPECT_THAT(Debug("health").lines, ::testing::ElementsAre());
}

TEST_F(DebugCommands, CapturesAsManyBuffersAsThereAre) {
  constexpr size_t kCount = 140;
  std::vector<std::string> nodes;
  for (size_t i = 100; i < 100 + kCount; ++i) nodes.push_back("tapout" + std::to_string(i));
  MakeNodes(nodes);
  StartService();
  const CommandResult started = Debug("capture start all " + (directory_ / "c").string());
  EXPECT_EQ(StatusOf(started), 0);
  EXPECT_THAT(started.lines, ::testing::Not(::testing::Contains(HasSubstr(" failed"))));
  EXPECT_GE(started.lines.size(), kCount);
  EXPECT_EQ(StatusOf(Debug("capture stop all")), 0);
}

TEST_F(DebugCommands, CapturesOneBuffer) {
  const std::string file = directory_ / "a.wav";
  const std::string stop = "CaptureStop inject0 buffer " + file + ", 0 samples";
  const struct {
    std::string line;
    int status;
    std::string text;
  } rows[] = {
      {"capture start inject0 " + file, 0, "CaptureStart inject0 buffer " + file},
      {"capture stop inject0", 0, stop},
      {"capture start tapout0 /no/dir", 1, "CaptureStart tapout0 buffer /no/dir failed"},
      {"capture start tapout9 a", 3, "Unknown buffer tapout9"},
      {"capture", 3, "Missing arguments"},
      {"capture start", 3, "Missing arguments"},
      {"capture start tapout0", 3, "Missing arguments"},
      {"capture pause tapout0", 3, "Invalid argument"},
  };
  const char* const outcomes[] = {"", "Debug: ERROR", "", "Debug: INVALID PARAMETER"};
  for (const auto& row : rows) {
    const CommandResult result = Debug(row.line);
    EXPECT_EQ(StatusOf(result), row.status) << row.line;
    Lines expected = {row.text, "Debug " + row.line};
    if (row.status != 0) expected.emplace_back(outcomes[row.status]);
    EXPECT_EQ(result.lines, expected);
  }
  EXPECT_EQ(ReadText(file), "");
  EXPECT_EQ(log_.Count("I " + stop), 1u);
}

}  // namespace
}  // namespace kvox
