// The expected graph, and how it is compared with the daemon's tables.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/campaign/graph_check.h"
#include "tests/campaign/streams.h"

namespace kvox::campaign {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr FourCc kId = MakeFourCc("ps00");
constexpr FourCc kOther = MakeFourCc("ps01");
const TapId kTap = {2, MakeFourCc("genp"), 0};

const Stream& TheStream() {
  return Streams().front();
}

/// The first stream, set up completely.
ExpectedGraph CompleteGraph() {
  ExpectedGraph graph;
  graph.NewProcessor(kId, MakeFourCc("pass"));
  graph.Connect(kId, 0, 0);
  graph.ProcessorEnable(kId, true);
  graph.ConnectTap(kTap, 0, 0);
  graph.TapEnable(kTap, true);
  graph.StartIo(0);
  return graph;
}

TEST(ExpectedGraphTest, AudioFlowsOnlyAllTheWay) {
  ASSERT_EQ(TheStream().Id(), kTap);
  EXPECT_TRUE(CompleteGraph().Flows(TheStream()));
  const std::vector<std::function<void(ExpectedGraph&)>> breaks = {
      [](auto& g) { g.TapEnable(kTap, false); },
      [](auto& g) { g.ConnectTap(kTap, kNone, kNone); },
      [](auto& g) { g.Connect(kId, kNone, kNone); },
      [](auto& g) { g.ProcessorEnable(kId, false); },
      [](auto& g) { g.StopIo(0); },
      [](auto& g) { g.DeleteProcessor(kId); },
      [](auto& g) { g.NewProcessor(kId, MakeFourCc("pass")); },
  };
  for (const auto& break_it : breaks) {
    ExpectedGraph graph = CompleteGraph();
    break_it(graph);
    EXPECT_FALSE(graph.Flows(TheStream()));
  }
}

TEST(ExpectedGraphTest, FollowsTheDaemonsRules) {
  ExpectedGraph graph = CompleteGraph();
  graph.NewProcessor(kOther, MakeFourCc("pass"));
  graph.Connect(kOther, kNone, 0);
  EXPECT_EQ(graph.processors().at(kId).inject, kNone) << "an inject buffer has one writer";
  graph.TapSetBlockLength(kTap, 480);
  graph.TapEnable(kTap, false);
  EXPECT_EQ(graph.taps().at(kTap).block_length, 480u);
  graph.ConnectTap(kTap, kNone, kNone);
  EXPECT_EQ(graph.taps().at(kTap), ExpectedTap()) << "off and unbound is forgotten";
}

TEST(ExpectedGraphTest, TheTapThatWasBoundLastHasTheBuffer) {
  ExpectedGraph graph = CompleteGraph();
  const TapId taker = {2, MakeFourCc("spar"), 0};
  graph.ConnectTap(taker, 0, 0);
  EXPECT_EQ(graph.SourceOf(0), kTap) << "the other one is off";
  graph.TapEnable(taker, true);
  EXPECT_EQ(graph.SourceOf(0), taker);
  EXPECT_FALSE(graph.Flows(TheStream()));
  graph.ConnectTap(kTap, 0, 0);
  EXPECT_EQ(graph.SourceOf(0), kTap);
  graph.StopIo(0);
  EXPECT_EQ(graph.SourceOf(0), std::nullopt);
}

/// One stream is set up, and has sent ten packets.
class FlowTest : public ::testing::Test {
 protected:
  FlowTest() {
    for (const Stream& tap : Taps()) before_.taps[tap.TapName()] = {.sent = 7, .exact = 5};
    for (const int inject : InjectNumbers()) before_.injects[inject] = 3;
    after_ = before_;
    after_.taps["genp.0"].sent += 10;
    after_.taps["genp.0"].exact += 9;
    after_.injects[0] += 9;
  }
  std::vector<std::string> Found() { return FlowDifferences(graph_, before_, after_); }

  ExpectedGraph graph_ = CompleteGraph();
  SimStatus before_;
  SimStatus after_;
};

TEST_F(FlowTest, EveryInjectGetsWhatItsProcessorReads) {
  EXPECT_THAT(Found(), IsEmpty()) << "one is in flight";
  after_.injects[0] = before_.injects[0] + 20;
  EXPECT_THAT(Found(), ElementsAre("inject0: 20 packets came, 10 were read for it"));
  after_.injects[0] = before_.injects[0];
  EXPECT_THAT(Found(), ElementsAre(HasSubstr("inject0: 0 packets came")));
  graph_.NewProcessor(kOther, MakeFourCc("pass"));
  graph_.Connect(kOther, 0, 60);
  graph_.StartIo(0);
  after_.injects[0] += 10;
  EXPECT_THAT(Found(), ElementsAre(HasSubstr("inject60: 0 packets came, 10 were")));
}

TEST_F(FlowTest, WhatIsOffIsSilent) {
  graph_.ProcessorEnable(kId, false);
  EXPECT_THAT(Found(), ElementsAre("tap genp.0: 9 packets came back, but its audio is off"));
  after_.taps["genp.0"].exact = before_.taps["genp.0"].exact;
  EXPECT_THAT(Found(), IsEmpty()) << "silence comes back";
  graph_.StopIo(0);
  EXPECT_THAT(Found(), ElementsAre(HasSubstr("genp.0 is to be off: 10 packets sent"),
                                   HasSubstr("inject0: 9 packets came, 0 were")));
  after_ = before_;
  EXPECT_THAT(Found(), IsEmpty());
  graph_.StartIo(0);
  EXPECT_THAT(Found(), ElementsAre(HasSubstr("genp.0 is to be on: 0 packets sent")));
}

class DifferencesTest : public ::testing::Test {
 protected:
  DifferencesTest() {
    sim_.taps["genp.0"] = {.enabled = true, .tapout = 0, .inject = 0, .block_length = 4800};
  }
  std::vector<std::string> Found() { return Differences(graph_, listed_, sim_); }

  ExpectedGraph graph_ = CompleteGraph();
  GraphTables listed_ = ExpectedTables(graph_);
  SimStatus sim_;
};

TEST_F(DifferencesTest, AreNoneWhenAllIsAsExpected) {
  EXPECT_THAT(Found(), IsEmpty());
  EXPECT_EQ(listed_.paths.at("ps00"), "genp.0 --> tapout0 --> ps00 --> inject0 --> genp.0");
  EXPECT_EQ(listed_.tapouts.at("tapout0"), "'' [ps00] on");
  EXPECT_EQ(listed_.injects.at("inject0"), "'ps00' [] on");
  EXPECT_EQ(listed_.injects.at("inject1"), "'' [] off");
}

TEST_F(DifferencesTest, NameEveryKind) {
  listed_.processors.erase("ps00");
  EXPECT_THAT(Found(), ElementsAre("processor ps00: expected \"pass 'tapout0' 'inject0' on\", "
                                   "listed \"nothing\""));
  listed_ = ExpectedTables(graph_);
  listed_.injects["inject0"] = "x";
  EXPECT_THAT(Found(), ElementsAre(HasSubstr("inject buffer inject0: expected")));
  listed_ = ExpectedTables(graph_);
  listed_.paths["ps09"] = "x";
  EXPECT_THAT(Found(), ElementsAre("path of ps09: not expected, listed \"x\""));
  listed_ = ExpectedTables(graph_);
  sim_.taps["genp.0"].tapout = -1;
  EXPECT_THAT(Found(), ElementsAre(HasSubstr("tap genp.0: expected \"on tapout 0")));
}

TEST_F(DifferencesTest, IgnoreSettingsThatWereNeverSet) {
  sim_.taps["genp.0"].jitter_buffer = 7;
  EXPECT_THAT(Found(), IsEmpty());
  graph_.TapSetJitterBuffer(kTap, 8);
  EXPECT_THAT(Found(), ElementsAre(HasSubstr("jitter 8\", the co-processor has")));
}

}  // namespace
}  // namespace kvox::campaign
