#include "tests/campaign/fault_plan.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "tests/campaign/audio_check.h"

namespace kvox::campaign {
namespace {

std::string Texts(FaultPlan plan, int events) {
  std::string texts;
  for (int i = 0; i < events; ++i) texts += plan.Next().Text() + "\n";
  return texts;
}

TEST(FaultPlanTest, TheSeedDecides) {
  EXPECT_EQ(Texts(FaultPlan(7, false, nullptr), 200), Texts(FaultPlan(7, false, nullptr), 200));
  EXPECT_NE(Texts(FaultPlan(7, false, nullptr), 200), Texts(FaultPlan(8, false, nullptr), 200));
}

TEST(FaultPlanTest, EveryKindComesAloneBeforeTheyMix) {
  FaultPlan plan(3, false, nullptr);
  std::set<std::string> alone;
  for (size_t i = 0; i < FaultKinds().size(); ++i) {
    const FaultEvent event = plan.Next();
    ASSERT_EQ(event.parts.size(), 1u);
    alone.insert(event.parts.front().kind->name);
  }
  EXPECT_EQ(alone.size(), FaultKinds().size());
  std::map<size_t, int> at_once;
  for (int i = 0; i < 300; ++i) ++at_once[plan.Next().parts.size()];
  EXPECT_EQ(at_once.size(), 3u);
}

TEST(FaultPlanTest, SomeKindsNeverMix) {
  FaultPlan plan(5, false, nullptr);
  int alone = 0;
  for (int i = 0; i < 500; ++i) {
    const FaultEvent event = plan.Next();
    for (const auto& part : event.parts) {
      if (!part.kind->alone) continue;
      ++alone;
      EXPECT_EQ(event.parts.size(), 1u) << part.kind->name;
    }
  }
  EXPECT_GT(alone, 10);
}

TEST(FaultPlanTest, KindsCanBeChosen) {
  FaultPlan quick(1, true, nullptr);
  for (int i = 0; i < 300; ++i) {
    for (const auto& part : quick.Next().parts) EXPECT_FALSE(part.kind->slow) << part.kind->name;
  }
  for (const FaultKind& kind : FaultKinds()) {
    ASSERT_EQ(FindFaultKind(kind.name), &kind);
    FaultPlan only(1, true, &kind);
    for (int i = 0; i < 20; ++i) {
      for (const auto& part : only.Next().parts) EXPECT_EQ(part.kind, &kind);
    }
  }
}

TEST(FaultEventTest, LastsUntilTheLastPartHasEnded) {
  const FaultKind& kind = FaultKinds().front();
  FaultEvent event;
  event.parts = {{&kind, {{"a"}, Ms(900)}}, {&kind, {{"b", "c"}, Ms(100)}, Ms(300)}};
  EXPECT_EQ(event.Lasts(), Ms(900));
  event.parts[1].injection.lasts = Ms(700);
  EXPECT_EQ(event.Lasts(), Ms(1000));
  EXPECT_EQ(event.Text(), "a; b; c");
  EXPECT_EQ(event.RecoveryLimit(), RecoveryLimitAfter(kind.group));
}

TEST(FaultEventTest, KeepsAudioOnlyIfAllPartsDo) {
  FaultEvent event;
  event.parts = {{FindFaultKind("connect-refused"), {}}, {FindFaultKind("reply-lost"), {}}};
  EXPECT_TRUE(event.KeepsAudio());
  event.parts.push_back({FindFaultKind("packet-drop"), {}});
  EXPECT_FALSE(event.KeepsAudio());
}

TEST(ExactRunTest, CountsOnlyPacketsSinceTheStart) {
  const Stream& stream = Streams().front();
  const TapStats before{.exact = 100, .exact_in_row = 100};
  const auto run = [&](uint64_t more, uint64_t in_row) {
    return ExactRun(stream, before, {.exact = before.exact + more, .exact_in_row = in_row});
  };
  EXPECT_EQ(run(0, 100), 0u);
  EXPECT_EQ(run(2, 102), 2u);
  EXPECT_EQ(run(4, 1), 1u) << "one was lost in between";
}

}  // namespace
}  // namespace kvox::campaign
