// The model of what clients asked for, the daemon's tables, and the two held against each other.
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

/// One stream of the table, set up whole.
Model WholeStream() {
  Model model;
  model.NewProcessor(kId, MakeFourCc("pass"));
  model.Connect(kId, 0, 0);
  model.ProcessorEnable(kId, true);
  model.ConnectTap(kTap, 0, 0);
  model.TapEnable(kTap, true);
  model.StartIo(0);
  return model;
}

TEST(ModelTest, AudioFlowsOnlyAllTheWay) {
  EXPECT_TRUE(WholeStream().Flows(kTap, kId));
  const std::vector<std::function<void(Model&)>> breaks = {
      [](Model& m) { m.TapEnable(kTap, false); },
      [](Model& m) { m.ConnectTap(kTap, kNone, kNone); },
      [](Model& m) { m.Connect(kId, kNone, kNone); },
      [](Model& m) { m.ProcessorEnable(kId, false); },
      [](Model& m) { m.StopIo(0); },
      [](Model& m) { m.DeleteProcessor(kId); },
      [](Model& m) { m.NewProcessor(kId, MakeFourCc("pass")); },
  };
  for (const auto& breaks_it : breaks) {
    Model model = WholeStream();
    breaks_it(model);
    EXPECT_FALSE(model.Flows(kTap, kId));
  }
}

TEST(ModelTest, FollowsTheDaemonsRules) {
  Model model = WholeStream();
  model.NewProcessor(kOther, MakeFourCc("pass"));
  model.Connect(kOther, kNone, 0);
  EXPECT_EQ(model.processors().at(kId).inject, kNone) << "an inject buffer has one writer";
  model.TapSetBlockLength(kTap, 480);
  model.TapEnable(kTap, false);
  EXPECT_EQ(model.taps().at(kTap).block_length, 480u);
  model.ConnectTap(kTap, kNone, kNone);
  EXPECT_EQ(model.taps().at(kTap), TapModel()) << "off and unbound is forgotten";
}

TEST(TablesTest, RowsAreReadHoweverTheyAreSplitIntoLines) {
  EXPECT_EQ(
      ParseProcessors({"Kvox processors: \n  Id        Type      InBuffer  OutBuffer Enabled  "
                       "\n  ps00      pass      tapout0   inject0   1        "
                       "\n  ps01      pass      -         -         0        "}),
      (std::map<std::string, ProcessorRow>{{"ps00", {"pass", "tapout0", "inject0", true}},
                                           {"ps01", {"pass", "-", "-", false}}}));
  EXPECT_EQ(ParseBuffers({"Tap-out buffers:",
                          "  Id        Name      InProc    OutProc   Enabled"
                          "\n  0         tapout0   -         ps00,ps01 1        "},
                         Direction::kTapOut),
            (std::map<int, BufferRow>{{0, {"tapout0", {"ps00", "ps01"}, true}}}));
  EXPECT_EQ(
      ParseBuffers({"  0         inject0   ps00      -         0        "}, Direction::kInject),
      (std::map<int, BufferRow>{{0, {"inject0", {"ps00"}, false}}}));
  EXPECT_THAT(ParseProcessors({"Kvox processors:   none"}), IsEmpty());
  EXPECT_EQ(ParseGraph({"Connection graph:",
                        "  genp.0 (disabled) --> tapout0 --> ps00 (disabled) --> NC --> NC"}),
            (std::map<std::string, std::string>{
                {"ps00", "genp.0 (disabled) --> tapout0 --> ps00 (disabled) --> NC --> NC"}}));
}

class CompareTest : public ::testing::Test {
 protected:
  CompareTest() {
    told_.taps["genp.0"] = {.enabled = true, .tapout = 0, .inject = 0, .block_length = 4800};
  }
  std::vector<std::string> Differences() { return Compare(model_, shown_, told_); }

  Model model_ = WholeStream();
  GraphTables shown_ = ExpectedTables(model_);
  SimStatus told_;
};

TEST_F(CompareTest, WhatIsAsAskedForIsNotMentioned) {
  EXPECT_THAT(Differences(), IsEmpty());
  EXPECT_EQ(shown_.graph.at("ps00"), "genp.0 --> tapout0 --> ps00 --> inject0 --> genp.0");
}

TEST_F(CompareTest, EveryKindOfDifferenceIsNamed) {
  shown_.processors.erase("ps00");
  EXPECT_THAT(Differences(), ElementsAre("processor ps00: asked for 'pass tapout0 inject0 on', "
                                         "listed 'nothing'"));
  shown_ = ExpectedTables(model_);
  shown_.injects[0].enabled = false;
  EXPECT_THAT(Differences(), ElementsAre(HasSubstr("inject buffer 0: asked for")));
  shown_ = ExpectedTables(model_);
  shown_.graph["ps09"] = "x";
  EXPECT_THAT(Differences(), ElementsAre("graph of ps09: listed 'x', not asked for"));
  shown_ = ExpectedTables(model_);
  told_.taps["genp.0"].tapout = -1;
  EXPECT_THAT(Differences(), ElementsAre(HasSubstr("tap genp.0: asked for 'on tapout 0")));
}

TEST_F(CompareTest, SettingsCountOnceSomebodyAskedForThem) {
  told_.taps["genp.0"].jitter_buffer = 7;
  EXPECT_THAT(Differences(), IsEmpty());
  model_.TapSetJitterBuffer(kTap, 8);
  EXPECT_THAT(Differences(), ElementsAre(HasSubstr("jitter 8', the co-processor has")));
}

}  // namespace
}  // namespace kvox::campaign
