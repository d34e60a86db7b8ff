// What engineers see of lost and late packets: the flight log through kvoxctl.
#include <nlohmann/json.hpp>

#include <fstream>
#include <map>
#include <set>

#include "tests/system/system_fixture.h"

namespace kvox {
namespace {

using nlohmann::json;
using ::testing::EndsWith;
using ::testing::HasSubstr;

/// 20 ms blocks: a busy machine delays them by less than the quarter that counts as late.
constexpr char kScenario[] = R"(
cores = [2]
tapouts = [0]
injects = [0]
[[tap]]
name = "genp"
core = 2
block_length = 960
source = { kind = "loop" }
)";

class FlightTest : public SystemTest {
 protected:
  void SetUp() override {
    std::ofstream(directory_ / "scenario.toml") << kScenario;
    StartSimulator({"--scenario", directory_ / "scenario.toml"});
    StartDaemon();
  }

  void StartStream(const std::string& type) {
    Call("NewProcessorWithType proc " + type);
    if (type == "arel") Call("SetParameter proc BLOCK_LENGTH 0 i:960");
    for (const char* line : {"Connect proc 0 0", "ProcessorEnable proc true",
                             "ConnectTap 2 genp 0 0 0", "StartIo 0", "TapEnable 2 genp 0 true"}) {
      Call(line);
    }
    ASSERT_TRUE(WaitFor([&] { return Figure("genp.0", "sent") > 10; }));
  }

  /// Of the causes that `why` finds: how many packets they lost.
  std::map<std::string, int> Lost() {
    std::map<std::string, int> lost;
    const ClientRun run = Run(Words("why --json"));
    const json document = json::parse(run.out);
    for (const json& incident : document["causes"]) {
      lost[incident["cause"]] += incident["lost"].get<int>();
    }
    return lost;
  }

  std::string FlightFile() const { return directory_ / "run/flight"; }
};

TEST_F(FlightTest, LossesAreSeenAtFirstSightAndExplained) {
  StartStream("pass");
  EXPECT_EQ(Run(Words("why")).exit_status, 0) << Run(Words("why")).out;
  const auto watch = Begin("watch --interval 0.1");
  ASSERT_TRUE(WaitFor([&] { return Figure("genp.0", "sent") > 30; }));
  Fault("packet-drop tap=genp.0 count=10");
  ASSERT_TRUE(WaitFor([&] { return Figure("genp.0", "sent") > 60; }));
  EXPECT_GE(Lost()["coprocessor_skipped"], 10);
  const ClientRun why = Run(Words("why tapout0"));
  EXPECT_EQ(why.exit_status, 7);
  EXPECT_THAT(why.out, HasSubstr("the co-processor skipped packets: 10 packets lost"));
  EXPECT_THAT(Do("stats"), HasSubstr(" 10 lost, "));
  const json top = Json("top -n 1");
  for (const json& row : top["rows"]) {
    if (row["name"] == "tapout0") {
      EXPECT_EQ(row["lost"], 10);
    }
  }
  const ClientRun doctor = Run(Words("doctor"));
  EXPECT_EQ(doctor.exit_status, 1);
  EXPECT_THAT(doctor.out, HasSubstr("the co-processor skipped packets  fix: kvoxctl why tapout0"));
  EXPECT_TRUE(WaitFor([&] {
    return CountOf("tap-out tapout0 lost: 10 packets lost", watch->Out()) == 1;
  })) << watch->Out();
}

TEST_F(FlightTest, TheBooksBalanceWithWhatTheSimulatorSent) {
  StartStream("pass");
  for (const char* fault :
       {"packet-drop", "packet-cut", "packet-version", "packet-junk bytes=101"}) {
    const int64_t before = Figure("genp.0", "sent");
    Fault(std::string(fault) + " tap=genp.0 count=2");
    ASSERT_TRUE(WaitFor([&] { return Figure("genp.0", "sent") > before + 20; }));
  }
  Call("TapEnable 2 genp 0 false");
  const json tap = Stats()["taps"][0];
  const int64_t numbers =
      tap["sent"].get<int64_t>() + tap["withheld"].get<int64_t>() + tap["dropped"].get<int64_t>();
  const auto accounted = [&] {
    const json stream = Json("stats")["streams"][0];
    return stream["dispatched"].get<int64_t>() + stream["lost"].get<int64_t>();
  };
  EXPECT_TRUE(WaitFor([&] { return accounted() == numbers; })) << accounted() << " " << numbers;
}

TEST_F(FlightTest, ABlackBoxTellsWhatADeadDaemonSawLast) {
  StartStream("pass");
  Call("Connect proc -1 -1");
  ASSERT_TRUE(WaitFor([&] { return Lost()["rewired"] > 1; }));
  daemon_->Signal(SIGKILL);
  daemon_->Wait();
  const ClientRun dead = Run(Words("why"));
  EXPECT_EQ(dead.exit_status, 7);
  EXPECT_THAT(dead.out, HasSubstr("this log is not written any more"));
  EXPECT_THAT(dead.out, HasSubstr("Connect Kvox processor"));
  const std::string copy = directory_ / "copy";
  Do("flight save " + copy);
  StartDaemon();
  EXPECT_THAT(Do("why"), HasSubstr("no stream has been on"));
  for (const std::string& file : {copy, FlightFile() + ".previous"}) {
    EXPECT_THAT(Run({"why", "--flight", file}).out, HasSubstr("Connect Kvox processor"));
    EXPECT_THAT(Run({"metrics", "--flight", file}).out,
                HasSubstr("kvox_packets_lost_total{stream=\"tapout0\",reason=\"no_route\"}"));
  }
  EXPECT_EQ(Run({"flight", "save", copy}).exit_status, 2) << "no file is overwritten";
}

/// The format's document names the phases and what each must have.
TEST_F(FlightTest, ATraceHasWhatItsViewersNeed) {
  StartStream("pass");
  Fault("packet-drop tap=genp.0 count=1");
  ASSERT_TRUE(WaitFor([&] { return Figure("genp.0", "sent") > 40; }));
  const std::string file = directory_ / "trace.json";
  Do("trace " + file);
  const json trace = json::parse(ReadText(file));
  std::map<std::string, std::set<std::string>> names;  // by phase
  std::set<int> flows;
  for (const json& event : trace["traceEvents"]) {
    const std::string phase = event["ph"];
    EXPECT_TRUE(event["pid"].is_number_integer() && event["tid"].is_number_integer()) << event;
    names[phase].insert(phase == "M" && event.contains("args") ? event["args"]["name"]
                                                               : event["name"]);
    if (phase == "M") continue;
    EXPECT_GE(event["ts"].get<double>(), 0) << event;
    EXPECT_GE(phase == "X" ? event["dur"].get<double>() : 0, 0) << event;
    EXPECT_TRUE(phase != "i" || event["s"] == "t") << event;
    EXPECT_TRUE(phase != "s" || flows.insert(event["id"].get<int>()).second) << event;
    EXPECT_TRUE(phase != "f" || flows.count(event["id"].get<int>()) == 1) << event;
  }
  for (const char* track : {"tapout0", "processor proc", "tapout0 writes", "buffers"}) {
    EXPECT_EQ(names["M"].count(track), 1u) << track;
  }
  EXPECT_EQ(names["i"].count("1 missing"), 1u);
  EXPECT_FALSE(names["s"].empty());
}

TEST_F(FlightTest, LatencyIsThatOfTheDaemonAndOfTheLoop) {
  StartStream("arel");
  const ClientRun run = Run(Words("latency tapout0 inject0 --probe proc --json"));
  const json loop = json::parse(run.out);
  EXPECT_EQ(run.exit_status, loop["probes"] == 10 ? 0 : 7) << "a busy machine may lose clicks";
  EXPECT_GE(loop["packets"], 10);
  EXPECT_LE(loop["p50_us"], loop["p99_us"]);
  EXPECT_EQ(loop["returned"], 10);
  // What is injected for a packet is in the next one at the earliest.
  EXPECT_GE(loop["loop_p50_ms"].get<double>(), 20);
  EXPECT_LE(loop["loop_p50_ms"].get<double>(), 200);
  EXPECT_EQ(Run(Words("latency tapout0 inject9")).exit_status, 4);
}

TEST_F(FlightTest, MetricsAreServedAndAcceptedByTheirChecker) {
  StartStream("pass");
  const std::string text = Do("metrics");
  EXPECT_THAT(text, HasSubstr("kvox_packets_dispatched_total{stream=\"tapout0\"} "));
  EXPECT_THAT(text, EndsWith("\n# EOF\n"));
  std::ofstream(directory_ / "metrics.txt") << text;
  const auto check = [&](const std::string& line) {
    Process promtool("sh", {"-c", line}, directory_ / "promtool");
    return std::pair(promtool.Wait(), promtool.Out() + promtool.Err());
  };
  if (check("command -v promtool").first != 0) GTEST_SKIP() << "promtool is not installed";
  const auto metrics = check("promtool check metrics < " + (directory_ / "metrics.txt").string());
  EXPECT_EQ(metrics.first, 0) << metrics.second;
  const auto rules = check("promtool check rules " KVOX_RULES);
  EXPECT_EQ(rules.first, 0) << rules.second;
}

TEST_F(FlightTest, AReportHasEverythingButAudio) {
  StartStream("pass");
  const std::string file = directory_ / "report.tar.gz";
  Do("bugreport " + file);
  Process tar("tar", {"-tzf", file}, directory_ / "tar");
  ASSERT_EQ(tar.Wait(), 0) << tar.Err();
  for (const char* name : {"README.txt", "doctor.txt", "why.txt", "graph.txt", "export.toml",
                           "flight", "machine.txt", "log.txt"}) {
    EXPECT_THAT(tar.Out(), HasSubstr(std::string("kvox-bugreport/") + name + "\n"));
  }
  EXPECT_EQ(Run({"bugreport", file}).exit_status, 2) << "no file is overwritten";
}

}  // namespace
}  // namespace kvox
