#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/system/system_fixture.h"

namespace kvox {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::Not;

/// export, apply and the picture of the graph.
class ClientStateTest : public SystemTest {
 protected:
  ClientStateTest() { StartBoth(); }

  /// A phone call, a microphone and a separate processor, with settings.
  void MakeBusy() {
    Do("usecase enable AREL_TELE");
    Do("usecase enable MIC_IN");
    Do("processor new pass pass");
    Do("param set pass JITTER_BUFFER i:960");
    Do("connect pass tapout0 inject0");
    Do("processor enable pass");
    Do("tap block-length genp.0 960");
    Do("tap connect genp.0 tapout0 inject0");
    Do("io start tapout0");
    Do("tap enable genp.0");
    Do("processor new idle phbt");
  }

  std::string Write(const std::string& text) {
    std::string path = directory_ / "state.toml";
    std::ofstream(path) << text;
    return path;
  }

  void RestartDaemon() {
    daemon_->Signal(SIGTERM);
    daemon_->Wait();
    StartDaemon();
    ASSERT_TRUE(WaitFor([&] { return Json("buffer list")["buffers"].size() == 16; }));
  }
};

TEST_F(ClientStateTest, WhatIsExportedComesBackAfterARestart) {
  MakeBusy();
  const std::string before = Do("export");
  const std::string file = Write(before);
  EXPECT_THAT(Do("apply " + file), Not(HasSubstr("disable"))) << "nothing is disturbed";
  const json document = Json("export");
  EXPECT_EQ(document["processors"].size(), 5u) << document;
  EXPECT_EQ(document["use_cases"], json({"AREL_TELE"}));

  RestartDaemon();
  const ClientRun dry = Run(Words("apply --dry-run " + file));
  EXPECT_EQ(dry.exit_status, 1);
  EXPECT_THAT(dry.out, HasSubstr("processor pass: type: wanted pass, actual none\n"));
  EXPECT_THAT(dry.out, HasSubstr("pass: jitter_buffer_frames: wanted 960, actual none\n"));
  EXPECT_THAT(dry.out, HasSubstr("pass: output: wanted inject0, actual none\n"));
  EXPECT_EQ(Json("processor list")["processors"], json::array()) << "dry";

  const json applied = Json("apply " + file);
  EXPECT_EQ(applied["steps"].front()["step"], "use case AREL_TELE: enable");
  EXPECT_EQ(applied["steps"].back()["done"], true);
  EXPECT_EQ(Do("export"), before);
  EXPECT_EQ(Do("apply --dry-run " + file), "nothing differs\n");
  const auto flows = [&] {
    const int64_t exact = Figure("genp.0", "exact");
    return WaitFor([&] { return Figure("genp.0", "exact") > exact + 10; });
  };
  EXPECT_TRUE(flows());
  const json taps = Stats()["taps"];
  Fault("restart gap=0.2");
  ASSERT_TRUE(DaemonLogs("Restore tap point state genp.0"));
  EXPECT_TRUE(flows()) << "the daemon has learned what the co-processor had when it was started";
  const json restored = Stats()["taps"];
  for (size_t i = 0; i < taps.size(); ++i) {
    for (const char* key : {"enabled", "block_length", "jitter_buffer"}) {
      EXPECT_EQ(restored[i][key], taps[i][key]) << taps[i]["tap"] << " " << key;
    }
  }
}

TEST_F(ClientStateTest, ARefusalStopsAndTellsHowFarItCame) {
  // A block of this length does not fit into a packet.
  const std::string file = Write(
      "schema = 1\n[[processor]]\nid = 'pass'\ntype = 'pass'\n"
      "[[tap]]\nname = 'genp.0'\ntapout = 'tapout0'\nblock_length_frames = 2000000\n");
  const ClientRun run = Run(Words("apply " + file));
  EXPECT_EQ(run.exit_status, 1);
  EXPECT_THAT(run.out, HasSubstr("done: processor pass: make, of type pass\n"));
  EXPECT_THAT(run.out, HasSubstr("not done: tap point 2:genp.0: bind to tapout0\n"));
  EXPECT_THAT(run.err, HasSubstr("tap point 2:genp.0: set block length to 2000000: "));
  EXPECT_EQ(Json("tap info genp.0")["tapout"], nullptr);

  Do("processor new mine pass");
  Do("apply --keep " + Write("schema = 1\n"));
  EXPECT_EQ(Json("processor list")["processors"].size(), 2u) << "kept";
  Do("apply " + Write("schema = 1\n"));
  EXPECT_EQ(Json("processor list")["processors"].size(), 0u);

  ExpectRefusal("apply " + Write("schema = 2\n"), 2, "state.toml:1: schema: found 2; expected");
  ExpectRefusal("apply /nowhere", 2, "/nowhere");
}

TEST_F(ClientStateTest, ASilentCoProcessorIsNoEmptyOne) {
  MakeBusy();
  const std::string file = Write("schema = 1\n");
  simulator_->Freeze();
  const std::string silence = " cores 2, 3 and 4 do not answer; see in the daemon's log";
  ExpectRefusal("apply " + file, 1, "nothing was done:" + silence);
  ExpectRefusal("apply --dry-run " + file, 1, "nothing was compared:" + silence);
  EXPECT_THAT(Run(Words("export")).err, HasSubstr("the file is not complete:" + silence));
  const ClientRun graph = Run(Words("graph --dot"));
  EXPECT_EQ(graph.exit_status, 1);
  EXPECT_THAT(graph.err, HasSubstr("the drawing is not complete:" + silence));
  simulator_->Signal(SIGCONT);
  EXPECT_EQ(Json("processor list")["processors"].size(), 5u);

  // The daemon cuts a row that names so many processors.
  for (int i = 100; i < 150; ++i) {
    const std::string id = "p" + std::to_string(i);
    Call("NewProcessorWithType " + id + " pass");
    Call("Connect " + id + " 0 -1");
  }
  Do("io stop tapout0");
  ExpectRefusal("apply " + file, 1, "1 row of 'kvoxctl buffer list tap-out' cannot be read");
}

TEST_F(ClientStateTest, TheDrawingShowsWhatIsOffAndWhatLacksAnEnd) {
  MakeBusy();
  const std::string dot = Do("graph --dot");
  EXPECT_THAT(dot, HasSubstr("\"processor pass\" [label=\"pass (pass)\", shape=ellipse, "
                             "style=solid, color=darkgreen]"));
  EXPECT_THAT(dot, HasSubstr("\"processor idle\" [label=\"idle (phbt)\", shape=ellipse, "
                             "style=dashed, color=gray40, fontcolor=gray40, color=red"));
  EXPECT_THAT(dot, HasSubstr("\"from 2:genp.0\" -> \"tapout0\" [style=solid"));
  EXPECT_THAT(dot, HasSubstr("\"inject0\" -> \"to 2:genp.0\""));
  EXPECT_THAT(dot, Not(HasSubstr("\"from 2:genp.1\"")));
}

}  // namespace
}  // namespace kvox
