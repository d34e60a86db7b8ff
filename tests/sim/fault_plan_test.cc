// Which fault strikes when, how faults are parsed, and what they do to the audio in packets.
#include "sim/faults/fault_plan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim/faults/fault_script.h"
#include "sim/faults/packet_faults.h"
#include "sim/scenario/scenario.h"
#include "tests/support/bytes.h"

namespace kvox::sim {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;
using ::testing::ThrowsMessage;

constexpr uint64_t kSecond = 1'000'000'000;
const FaultTargets kTargets{{"imic.0", "genp.1"}, {"kvo", "control", "inject0", "tapout0"}};

FaultConfig Parse(const std::vector<std::string>& words) {
  return ParseFault(words, kTargets);
}

/// The numbers of the packets of a tap that are struck, one a millisecond.
std::vector<int> Struck(FaultPlan& plan, const std::string& tap, int packets, uint64_t from = 0) {
  std::vector<int> struck;
  for (int i = 1; i <= packets; ++i) {
    if (!plan.OnPacket(tap, from + static_cast<uint64_t>(i) * 1'000'000).empty()) {
      struck.push_back(i);
    }
  }
  return struck;
}

TEST(FaultPlan, StrikesPacketsByTheirTriggers) {
  const struct {
    std::vector<std::string> words;
    std::vector<int> packets;
  } rows[] = {
      {{"packet-drop"}, {1}},
      {{"packet-drop", "count=3"}, {1, 2, 3}},
      {{"packet-drop", "after=4", "count=2"}, {5, 6}},
      {{"packet-drop", "at=0.006"}, {6}},
      {{"packet-drop", "at=0.004", "for=0.003"}, {4, 5, 6}},
      {{"packet-drop", "after=5", "for=0.003", "count=2"}, {6, 7}},
      {{"packet-drop", "tap=genp.1"}, {}},
      {{"packet-early"}, {}},  // is asked for apart
      {{"reply-lost"}, {}},
      {{"restart", "at=1000"}, {}},
  };
  for (const auto& row : rows) {
    FaultPlan plan(0);
    plan.Add(Parse(row.words), 0);
    EXPECT_EQ(Struck(plan, "imic.0", 10), row.packets) << ::testing::PrintToString(row.words);
  }
}

TEST(FaultPlan, TheSeedDecidesWhichPacketsAreStruck) {
  const auto run = [](const char* seed, bool others) {
    FaultPlan plan(0);
    plan.Add(Parse({"packet-cut", "probability=0.1", seed, "count=1000"}), 0);
    if (others) Struck(plan, "genp.1", 77);  // what another tap sends in between changes nothing
    return Struck(plan, "imic.0", 1000);
  };
  const auto first = run("seed=1", false);
  EXPECT_GT(first.size(), 70u);
  EXPECT_LT(first.size(), 130u);
  EXPECT_EQ(run("seed=1", true), first);
  EXPECT_NE(run("seed=2", false), first);
}

TEST(FaultPlan, StrikesCommandsByTheirOpcode) {
  FaultPlan plan(0);
  plan.Add(Parse({"reply-status", "opcode=0xCB", "status=-7", "after=1"}), 0);
  plan.Add(Parse({"reply-stale", "count=2"}), 0);
  EXPECT_THAT(plan.OnCommand(0xCA, true, 1), IsEmpty()) << "there is no stale reply yet";
  EXPECT_THAT(plan.OnCommand(0xCB, false, 2), SizeIs(1));
  EXPECT_THAT(plan.OnCommand(0xCB, false, 3), SizeIs(2));
  EXPECT_THAT(plan.OnCommand(0xCB, false, 4), IsEmpty());
  EXPECT_EQ(plan.CountsOf(FaultKind::kReplyStatus, 5).injected, 1u);
  EXPECT_EQ(plan.CountsOf(FaultKind::kReplyStale, 5).injected, 2u);
  EXPECT_EQ(plan.CountsOf(FaultKind::kReplyStale, 5).active, 0u);
}

TEST(FaultPlan, BeginsFaultsOfNodesByTheClockOrAPacket) {
  FaultPlan plan(100);
  bool alarm = false;
  plan.SetAlarm([&] { alarm = true; });
  plan.Add(Parse({"flap", "device=kvo", "at=2"}), 100);
  plan.Add(Parse({"restart", "after=1", "tap=genp.1", "count=2"}), 100);
  EXPECT_EQ(plan.NextDue(), 2 * kSecond + 100);
  EXPECT_EQ(plan.CountsOf(FaultKind::kFlap, kSecond).waiting, 1u);
  EXPECT_THAT(plan.StartDue(2 * kSecond + 99), IsEmpty());
  const auto flap = plan.StartDue(2 * kSecond + 100);
  ASSERT_THAT(flap, SizeIs(1));
  EXPECT_EQ(plan.CountsOf(FaultKind::kFlap, kSecond).active, 1u);
  EXPECT_EQ(plan.NextDue(), FaultPlan::kNever);
  plan.Ended(flap[0].id);
  EXPECT_EQ(plan.CountsOf(FaultKind::kFlap, kSecond).active, 0u);

  Struck(plan, "imic.0", 5);
  Struck(plan, "genp.1", 1);
  EXPECT_FALSE(alarm);
  Struck(plan, "genp.1", 1);
  EXPECT_TRUE(alarm);
  EXPECT_EQ(plan.NextDue(), 0u);
  const auto restart = plan.StartDue(5 * kSecond);
  ASSERT_THAT(restart, SizeIs(1));
  Struck(plan, "genp.1", 3);
  EXPECT_THAT(plan.StartDue(5 * kSecond), IsEmpty()) << "one at a time";
  plan.Ended(restart[0].id);
  Struck(plan, "genp.1", 1);
  EXPECT_THAT(plan.StartDue(5 * kSecond), SizeIs(1));
  plan.Clear();
  EXPECT_EQ(plan.CountsOf(FaultKind::kRestart, kSecond).active, 0u);
  EXPECT_EQ(plan.CountsOf(FaultKind::kRestart, kSecond).injected, 2u);
}

TEST(FaultPlan, TakesNoMoreThanItCanHold) {
  FaultPlan plan(0);
  for (size_t i = 0; i < kMaxFaults; ++i) EXPECT_TRUE(plan.Add(Parse({"packet-drop"}), 0));
  EXPECT_FALSE(plan.Add(Parse({"packet-drop"}), 0));
  EXPECT_THAT(plan.OnPacket("imic.0", 1), SizeIs(kMaxFaults));
  EXPECT_TRUE(plan.Add(Parse({"packet-drop"}), 0)) << "those that struck are gone";
}

/// "3+" for a device that arrives after three milliseconds, "3-" for one that leaves, "3!" for a
/// reset.
std::vector<std::string> Script(const std::vector<std::string>& words) {
  std::vector<std::string> texts;
  for (const FaultStep& step : MakeScript(Parse(words), kTargets.devices)) {
    std::string text = std::to_string(step.at_ns / 1'000'000);
    text += step.action == FaultStep::Action::kImpair   ? "-"
            : step.action == FaultStep::Action::kRepair ? "+"
                                                        : "!";
    if (step.action != FaultStep::Action::kReset) text += kTargets.devices[step.device];
    texts.push_back(text);
  }
  return texts;
}

TEST(FaultScript, NodesGoAgainstTheirOrderAndComeAsAsked) {
  EXPECT_THAT(Script({"restart", "gap=1", "spacing=0.1", "missing=inject0"}),
              ElementsAre("0-tapout0", "0-inject0", "0-control", "0-kvo", "0!", "1000+kvo",
                          "1100+control", "1300+tapout0"));
  EXPECT_THAT(Script({"restart", "gap=0", "order=reverse", "missing=kvo", "missing_for=2"}),
              ElementsAre("0-tapout0", "0-inject0", "0-control", "0-kvo", "0!", "0+tapout0",
                          "0+inject0", "0+control", "2000+kvo"));
  EXPECT_EQ(Script({"restart", "order=shuffle"}), Script({"restart", "order=shuffle"}));
  EXPECT_NE(Script({"restart", "order=shuffle"}), Script({"restart"}));
  EXPECT_THAT(Script({"flap", "device=control", "times=2", "gap=0.1"}),
              ElementsAre("0-control", "100+control", "200-control", "300+control"));
  EXPECT_THAT(Script({"node-gone", "device=kvo"}), ElementsAre("0-kvo"));
  EXPECT_THAT(Script({"inject-stall", "device=inject0", "for=0.5"}),
              ElementsAre("0-inject0", "500+inject0"));
}

constexpr char kScenario[] = R"(
cores = [2]
tapouts = [0]
injects = [0]
tap = [{ name = "imic", core = 2 }]
[[fault]]
kind = "packet-junk"
tap = "imic.0"
after = 10
bytes = 16
[[fault]]
)";

TEST(FaultParser, ReadsTheTablesOfAScenario) {
  const Scenario scenario =
      ParseScenario(kScenario + std::string("kind = \"tapout-error\"\nfor = 0.5\n"
                                            "device = \"tapout0\"\nat = 3"),
                    "s.toml", "");
  ASSERT_THAT(scenario.faults, SizeIs(2));
  EXPECT_EQ(scenario.faults[0].kind, FaultKind::kPacketJunk);
  EXPECT_EQ(scenario.faults[0].after, 10u);
  EXPECT_EQ(scenario.faults[0].bytes, 16u);
  EXPECT_EQ(scenario.faults[1].at, 3.0);
  EXPECT_EQ(scenario.faults[1].seconds, 0.5);

  const struct {
    const char* fault;
    const char* message;
  } rows[] = {
      {"", "s.toml:11: fault[1].kind: missing; expected one of \"restart\""},
      {"kind = \"packet-cut\"\ntap = \"eref.0\"",
       "s.toml:13: fault[1].tap: found 'eref.0'; "
       "expected one of imic.0"},
      {"kind = \"packet-cut\"\nbytes = 3", "fault[1].bytes: unknown key; expected one of kind, at"},
      {"kind = \"restart\"\ncount = 3", "count: goes with packets; expected the key after or"},
      {"kind = \"inject-stall\"\ndevice = \"tapout0\"", "found 'tapout0'; expected one of inject0"},
  };
  for (const auto& row : rows) {
    const std::string text = std::string(kScenario) + row.fault;
    EXPECT_THAT(
        [&] { ParseScenario(text, "s.toml", ""); },
        ThrowsMessage<std::invalid_argument>(AllOf(StartsWith("s.toml:"), HasSubstr(row.message))));
  }
}

TEST(PacketFaults, AnotherFormatCarriesTheSameFrames) {
  const FaultConfig fault{.kind = FaultKind::kPacketFormat};
  const KvoxTapFormat mono{.sample_rate = 48000, .channels = 1, .bytes_per_sample = 2};
  const auto stereo = ChangedFormat(std::span(&fault, 1), mono, 480);
  ASSERT_TRUE(stereo);
  EXPECT_EQ(stereo->channels, 2);
  EXPECT_EQ(ChangedFormat(std::span(&fault, 1), *stereo, 480)->channels, 1);
  EXPECT_FALSE(ChangedFormat({}, mono, 480));
  EXPECT_FALSE(ChangedFormat(std::span(&fault, 1), mono, 32736)) << "no packet is that long";
  const Bytes audio = {std::byte{1}, std::byte{2}, std::byte{3}, std::byte{4}};
  const auto both = Remix(audio, mono, *stereo);
  EXPECT_EQ(both.size(), 8u);
  EXPECT_EQ(both[2], std::byte{1}) << "the right channel has what the left one has";
  EXPECT_EQ(Remix(both, *stereo, mono), audio);
}

}  // namespace
}  // namespace kvox::sim
