// A co-processor that has one core, one tap point and few buffers: the client works with what is
// there and says what is not.
#include <nlohmann/json.hpp>

#include <fstream>
#include <map>
#include <utility>

#include "kvox/common/four_cc.h"
#include "kvox/common/use_case_needs.h"
#include "tests/system/system_fixture.h"

namespace kvox {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;

class SmallBoardTest : public SystemTest {
 protected:
  void SetUp() override {
    std::ofstream(directory_ / "board.toml") << R"(
        cores = [2]
        tapouts = [0, 20, 40]
        injects = [0, 20]
        [[tap]]
        name = "genp"
        core = 2)";
    StartSimulator({"--scenario", directory_ / "board.toml"});
    StartDaemon();
    ASSERT_TRUE(DaemonLogs("Found 3 tap-out buffers, 2 inject buffers"));
    for (const char* line : {"NewProcessor pass", "Connect pass 0 0", "ProcessorEnable pass true",
                             "ConnectTap 2 genp 0 0 0", "TapEnable 2 genp 0 true", "StartIo 0"}) {
      Call(line);
    }
  }

  /// The verb works, and says what the board has not.
  std::string WithoutCores(const std::string& line) {
    const ClientRun run = Run(Words(line));
    EXPECT_EQ(run.exit_status, 0) << line << "\n" << run.err;
    EXPECT_THAT(run.err, HasSubstr("has no cores 3 and 4")) << line;
    return run.out;
  }
};

TEST_F(SmallBoardTest, ListsAndDrawingsShowWhatThereIs) {
  EXPECT_THAT(WithoutCores("tap list"), HasSubstr("genp"));
  EXPECT_THAT(WithoutCores("graph"),
              HasSubstr("genp.0 --> tapout0 --> pass --> inject0 --> genp.0"));
  EXPECT_EQ(json::parse(WithoutCores("graph --json"))["paths"].size(), 1u);
  EXPECT_THAT(WithoutCores("graph --dot"), HasSubstr("2:genp.0"));
  ExpectRefusal("tap list 3", 4, "the co-processor has no core 3");
  EXPECT_EQ(Run(Words("call ShowGraph")).exit_status, 1);
}

TEST_F(SmallBoardTest, ItsStateIsSavedAndAppliedAgain) {
  const std::string file = (directory_ / "state.toml").string();
  std::ofstream(file) << WithoutCores("export");
  EXPECT_THAT(ReadText(file), HasSubstr("has no cores 3 and 4"));
  EXPECT_EQ(json::parse(WithoutCores("export --json"))["absent_cores"], json({3, 4}));
  Do("tap disable genp.0");
  WithoutCores("apply " + file);
  EXPECT_EQ(Json("tap info genp.0")["enabled"], true);
}

TEST_F(SmallBoardTest, AUseCaseSaysWhatTheBoardLacks) {
  ExpectRefusal("usecase enable AREL_TELE", 1,
                "the board lacks tap point 4:vpdl.0, inject40, tap point 4:vpul.1, tapout41, "
                "inject41");
  ExpectRefusal("usecase enable MIC_IN", 1, "the board lacks tap point 2:imic.0");
}

TEST(PortingPage, ListsWhatTheUseCasesNeed) {
  std::map<std::string, std::pair<std::string, std::string>> rows;
  for (const UseCaseNeed& need : kUseCaseNeeds) {
    auto& [taps, buffers] = rows[std::string(need.use_case)];
    const char* const between = taps.empty() ? "" : ", ";
    taps += between + ("`" + std::to_string(need.core) + ":" + ToString(need.tap) + "." +
                       std::to_string(need.index) + "`");
    buffers += between + std::to_string(need.buffer);
  }
  const std::string page = ReadText(KVOX_PORTING_PAGE);
  for (const auto& [name, row] : rows) {
    const std::string line = "| `" + name + "` | " + row.first + " | " + row.second + " |\n";
    EXPECT_EQ(CountOf(line, page), 1) << line;
    EXPECT_EQ(CountOf("| `" + name + "` |", page), 1) << name;
  }
}

}  // namespace
}  // namespace kvox
