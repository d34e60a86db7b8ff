#include <nlohmann/json.hpp>

#include "tests/system/system_fixture.h"

namespace kvox {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::StartsWith;

/// The verbs that let audio flow, and watch it.
class ClientAudioTest : public SystemTest {
 protected:
  ClientAudioTest() { StartBoth(); }

  /// genp.0 → tapout0 → pass → inject0 → genp.0
  void StartFlow() {
    Do("processor new pass");
    Do("connect pass tapout0 inject0");
    Do("processor enable pass");
    Do("tap connect genp.0 0 0");
    Do("io start tapout0");
    Do("tap enable genp.0");
  }
};

TEST_F(ClientAudioTest, VerbsBuildAPathAndTakeItDown) {
  StartFlow();
  EXPECT_EQ(Do("graph"), Call("ShowGraph"));
  const json path = Json("graph")["paths"][0];
  EXPECT_EQ(path["source"], "genp.0");
  EXPECT_EQ(path["tapout"], "tapout0");
  EXPECT_EQ(path["processor_enabled"], true);
  EXPECT_TRUE(WaitFor([&] { return Figure("genp.0", "exact") > 2; }));
  EXPECT_THAT(Do("buffer list tap-out --short"),
              StartsWith("tapout0\t0\ttap-out\t-\tpass\t1\t0\n"));
  Do("io stop all");
  Do("disconnect pass");
  EXPECT_EQ(Json("graph")["paths"][0]["tapout"], nullptr);
  ExpectRefusal("connect pass tapout7 none", 4, "there is no tap-out buffer 'tapout7'; did you");
  ExpectRefusal("io start 9", 4, "there is no tap-out buffer '9'");
}

TEST_F(ClientAudioTest, StatisticsAreReadSizedAndForgotten) {
  StartFlow();
  Do("stats pass --entries 100");
  json stats;
  EXPECT_TRUE(WaitFor([&] {
    stats = Json("stats pass")["processors"][0];
    return stats["blocks"] > 5 && !stats["active_ms"].empty();
  }));
  EXPECT_EQ(stats["id"], "pass");
  EXPECT_EQ(stats["buffer_entries"], 100);
  EXPECT_THAT(Do("stats"), StartsWith("pass  "));
  const int64_t exact = Figure("genp.0", "exact");
  EXPECT_TRUE(WaitFor([&] { return Figure("genp.0", "exact") > exact + 3; }));
  Do("io stop all");
  EXPECT_EQ(Do("stats --reset --entries 3"), "");
  stats = Json("stats pass")["processors"][0];
  EXPECT_EQ(stats["buffer_entries"], 3);
  EXPECT_EQ(stats["average_period_ms"], 0) << "both are done";
  ExpectRefusal("stats pass --entries 261121", 2, "is not a number from 0 to 261120");
}

TEST_F(ClientAudioTest, CapturesGoWhereTheClientStands) {
  StartFlow();
  std::filesystem::current_path(directory_.path());
  Do("capture start tapout0 heard.wav");
  ExpectRefusal("capture start tapout0 other.wav", 1, "capture of tapout0: CaptureStart tapout0");
  EXPECT_THAT(Do("capture stop tapout0"), HasSubstr((directory_ / "heard.wav").string()));
  EXPECT_TRUE(exists(directory_ / "heard.wav"));
  Do("capture start all all");
  EXPECT_THAT(Do("capture stop"), HasSubstr("all_inject41.wav, 0 samples"));
  std::filesystem::current_path("/");
  ExpectRefusal("capture start tapout0", 2, "FILE is missing");
  ExpectRefusal("capture start imic.0 a.wav", 2, "imic.0 is a tap point; 'kvoxctl record imic.0");
  for (const auto& [file, why] : {std::pair("/nowhere/a.wav", "No such file or directory"),
                                  std::pair("/tmp", "not a regular file")}) {
    ExpectRefusal(std::string("capture start tapout0 ") + file, 1, why);
    EXPECT_THAT(Do("capture status"), HasSubstr(std::string(file) + " failed"));
  }
  ExpectRefusal("capture start 0 a.wav", 2, "BUFFER: '0' may be tapout0 or inject0; name one");
  EXPECT_EQ(Do("debug buffer_dump tapout 0"), Call("Debug buffer_dump tapout 0"));
  EXPECT_EQ(Do("--short debug buffer_dump tapout 0"), Call("Debug buffer_dump tapout 0"));
  ExpectRefusal("debug reboot", 1, "reboot: Debug: INVALID PARAMETER; 'kvoxctl debug help'");
}

TEST_F(ClientAudioTest, RecordingThatCannotBeginTouchesNoFile) {
  Do("processor new pass");
  const std::string kept = (directory_ / "kept.wav").string();
  const std::string fresh = (directory_ / "fresh.wav").string();
  std::ofstream(kept) << "kept" << std::flush;
  for (const std::string& file : {kept, fresh}) {
    ExpectRefusal("record pass " + file, 1, "pass reads nothing; 'kvoxctl connect' connects it");
    ExpectRefusal("record inject0 " + file, 2, "'kvoxctl capture start inject0 FILE' writes");
  }
  EXPECT_EQ(ReadText(kept), "kept");
  EXPECT_FALSE(exists(std::filesystem::path(fresh)));
  ExpectRefusal("record pass /nowhere/x.wav", 2, "FILE: cannot write '/nowhere/x.wav': No such");
}

TEST_F(ClientAudioTest, UseCasesGoByNameInAnyCase) {
  EXPECT_EQ(Do("usecase list"), Call("ListSupportedUseCases"));
  Do("usecase enable arel_tele");
  EXPECT_EQ(Json("usecase status AREL_TELE")["enabled"], true);
  const json list = Json("usecase list")["usecases"];
  EXPECT_EQ(list[1], json::parse("{\"name\": \"MIC_IN\", \"enabled\": null}"));
  EXPECT_EQ(list[3]["enabled"], true);
  Do("usecase disable AREL_TELE");
  EXPECT_EQ(Do("usecase status AREL_TELE"), "Use case 'AREL_TELE' is disabled\n");
  ExpectRefusal("usecase status MIC_IN", 1, "use case MIC_IN: kvox use case state unknown");
  ExpectRefusal("usecase enable mic", 4, "there is no use case 'mic'; did you mean 'MIC_IN'");
  ExpectRefusal("usecase gain MIC_IN 0.5 --ramp 20", 1, "Unavailable");
  ExpectRefusal("usecase enable HOTWORDAEC", 1, "INVALID PROCESSOR");
}

}  // namespace
}  // namespace kvox
