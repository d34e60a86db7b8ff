#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "libkvox/graph/change.h"
#include "libkvox/graph/probe.h"
#include "libkvox/graph/route.h"

namespace kvox::client {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

Buffer MakeBuffer(Direction direction, int id) {
  return {.id = id,
          .name = std::string(BufferPrefix(direction)) + std::to_string(id),
          .direction = direction};
}

TapPoint MakeTap(const char* code) {
  return {.core = 2,
          .code = code,
          .sample_rate_hz = 48'000,
          .channels = 2,
          .encoding = 'i',
          .bits = 16,
          .block_length_frames = 480};
}

/// Three tap points, and two buffers of each direction beside one that a use case needs.
Snapshot Board() {
  Snapshot board;
  board.types = {"pass", "arel"};
  for (const int id : {20, 0, 1}) {
    board.tapouts.push_back(MakeBuffer(Direction::kTapOut, id));
    board.injects.push_back(MakeBuffer(Direction::kInject, id));
  }
  board.taps = {MakeTap("imic"), MakeTap("sspk"), MakeTap("genp")};
  return board;
}

/// What the daemon would show after the change.
Snapshot After(const State& state, Snapshot board) {
  board.processors.clear();
  for (const auto& [id, processor] : state.processors) {
    board.processors.push_back({.id = id,
                                .type = processor.type,
                                .input = processor.input,
                                .output = processor.output,
                                .enabled = processor.enabled});
  }
  for (TapPoint& tap : board.taps) {
    const TapState& now = state.taps.at(tap.FullName());
    tap.tapout = now.tapout;
    tap.inject = now.inject;
    tap.enabled = now.enabled;
  }
  for (auto* const buffers : {&board.tapouts, &board.injects}) {
    for (Buffer& buffer : *buffers) {
      buffer.enabled = state.running.contains(buffer.name);
      buffer.producer.clear();
      for (const auto& [id, processor] : state.processors) {
        if (processor.output == buffer.name) buffer.producer = id;
      }
    }
  }
  return board;
}

std::vector<std::string> StepsTo(const State& wanted, const Snapshot& from) {
  std::vector<std::string> steps;
  for (const Step& step : Plan(wanted, StateOf(from))) steps.push_back(Describe(step));
  return steps;
}

/// The message of the failure that `call` throws.
std::string FailureOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const Failure& failure) {
    return failure.what();
  }
  return "none";
}

TEST(RouteTest, SetsUpAndTakesDownAChain) {
  const Snapshot board = Board();
  const State routed = WithRoute({"imic.0", "pass", "sspk.0"}, board);
  EXPECT_THAT(
      StepsTo(routed, board),
      ElementsAre("processor pass: make, of type pass",
                  "processor pass: connect to tapout0 and inject0",
                  "tap point 2:imic.0: bind to tapout0", "tap point 2:sspk.0: bind to inject0",
                  "processor pass: enable", "buffer tapout0: start", "tap point 2:imic.0: enable",
                  "tap point 2:sspk.0: enable"));
  const Snapshot after = After(routed, board);
  EXPECT_THAT(StepsTo(WithRoute({"imic.0", "pass", "sspk.0"}, after), after), ElementsAre());
  EXPECT_THAT(StepsTo(WithoutProcessors({"pass"}, after), board), ElementsAre());

  // Another reader of the same tap point stays.
  const Snapshot two = After(WithRoute({"imic.0", "more", "", "pass"}, after), after);
  EXPECT_EQ(two.processors.front().input, "tapout0");
  EXPECT_THAT(StepsTo(WithoutProcessors({"pass"}, two), two),
              ElementsAre("tap point 2:imic.0: disable", "tap point 2:sspk.0: disable",
                          "processor pass: disable", "processor pass: delete",
                          "tap point 2:sspk.0: bind to nothing", "tap point 2:imic.0: enable"));
}

TEST(RouteTest, RefusesWhatWouldTakeFromOthers) {
  const Snapshot board = After(WithRoute({"imic.0", "pass", "inject0"}, Board()), Board());
  const struct {
    Route route;
    const char* message;
  } rows[] = {
      {{"genp.0", "more", "inject0", "pass"}, "inject0 is written by pass"},
      {{"genp.0", "pass", "inject1"}, "processor pass is connected to tapout0 and inject0"},
      {{"imic.0", "pass", "inject0", "arel"}, "processor pass is of type pass, not arel"},
      {{"imic.0", "gain"}, "no processor type 'gain'"},
      {{"imic.0", "long1"}, "four printable characters"},
      {{"imik.0", "more", "", "pass"}, "did you mean 'imic.0'"},
      {{"inject1", "more", "", "pass"}, "inject1 is no tap-out buffer"},
      {{"genp.0", "more", "tapout1", "pass"}, "tapout1 is no inject buffer"},
  };
  for (const auto& row : rows) {
    EXPECT_THAT(FailureOf([&] { WithRoute(row.route, board); }), HasSubstr(row.message));
  }
  Snapshot full = board;
  full.tapouts.resize(2);  // tapout20 and tapout0
  const State both = WithRoute({"sspk.0", "more", "", "pass"}, full);
  EXPECT_EQ(both.taps.at("2:sspk.0").tapout, "tapout20") << "the last resort";
  EXPECT_THAT(FailureOf([&] {
                WithRoute({"genp.0", "last", "", "pass"}, After(both, full));
              }),
              HasSubstr("tapout20: more reads it, 2:sspk.0 streams into it"));
}

TEST(ChangeTest, TakesBackOnlyWhatItHasMadeAndNobodyElseUses) {
  const Snapshot board = After(WithRoute({"sspk.0", "pass", "inject0"}, Board()), Board());
  GraphChange change{.before = StateOf(board),
                     .after = WithRoute({"imic.0", "mine", "", "pass"}, board)};
  change.steps = Plan(change.after, change.before);
  EXPECT_TRUE(Differences(Reverted(change.after, change), change.before).empty());

  const Snapshot after = After(change.after, board);
  const State shared = WithRoute({"imic.0", "thei", "", "pass"}, after);
  const State left = Reverted(shared, change);
  EXPECT_FALSE(left.processors.contains("mine"));
  EXPECT_EQ(left.taps.at("2:imic.0").tapout, "tapout1") << "somebody else reads it now";
  EXPECT_TRUE(left.running.contains("tapout1"));
  EXPECT_EQ(left.processors.at("pass").output, "inject0");

  // A step has failed half-way: the tap point that was off for a moment is on again.
  GraphChange failed{.before = change.before, .after = WithoutProcessors({"pass"}, board)};
  failed.steps = Plan(failed.after, failed.before);
  State now = failed.before;
  Perform(failed.steps.front(), now);
  ASSERT_FALSE(now.taps.at("2:sspk.0").enabled);
  EXPECT_TRUE(Differences(Reverted(now, failed), failed.before).empty());
}

TEST(ProbeTest, FindsOrMakesARelayWithoutDisturbingAnybody) {
  const Snapshot board = After(WithRoute({"sspk.0", "pass", "inject0"}, Board()), Board());
  const Access idle = PlanAccess("imic.0", Use::kReceive, "~7aa", board);
  EXPECT_TRUE(idle.temporary);
  EXPECT_EQ(idle.stream, "tapout1");
  // Beside others, nothing but the relay changes.
  for (const char* const point : {"sspk.0", "tapout0", "pass"}) {
    const Access shared = PlanAccess(point, Use::kReceive, "~0aa", board);
    EXPECT_THAT(StepsTo(shared.state, board),
                ElementsAre("processor ~0aa: make, of type arel",
                            "processor ~0aa: connect to tapout0", "processor ~0aa: enable"))
        << point;
  }
  const Access sending = PlanAccess("genp.0", Use::kSend, "~7aa", board);
  EXPECT_EQ(sending.state.taps.at("2:genp.0").inject, "inject1");
  EXPECT_EQ(sending.state.processors.at("~7aa").block_length_frames, 480);
  const Snapshot with_relay = After(WithRoute({"imic.0", "mine", "inject1", "arel"}, board), board);
  const Access relay = PlanAccess("mine", Use::kSend, "~7aa", with_relay);
  EXPECT_FALSE(relay.temporary);
  EXPECT_EQ(relay.stream, "tapout1");

  Snapshot odd = board;
  odd.taps[0].sample_rate_hz = 16'000;
  odd.taps[2].block_length_frames = 256;
  const struct {
    const char* point;
    Use use;
    const char* message;
  } rows[] = {
      {"inject0", Use::kReceive, "kvoxctl capture start inject0"},
      {"inject0", Use::kSend, "inject0 is written by pass"},
      {"inject1", Use::kSend, "inject1 plays at no tap point"},
      {"tapout0", Use::kSend, "only delivers audio"},
      {"sspk.0", Use::kSend, "takes audio from no buffer and is in use"},
      {"pass", Use::kSend, "only relays (type arel) take audio"},
      {"imic.0", Use::kReceive, "relays take 48000 Hz only"},
      {"genp.0", Use::kSend, "blocks of 256 frames"},
      {"what is it", Use::kReceive, "no tap point such as imic.0"},
  };
  for (const auto& row : rows) {
    EXPECT_THAT(FailureOf([&] { PlanAccess(row.point, row.use, "~7aa", odd); }),
                HasSubstr(row.message));
  }
}

TEST(ProbeTest, RemovesWhatACrashedClientHasLeft) {
  const Snapshot board = After(WithRoute({"sspk.0", "pass", "inject0"}, Board()), Board());
  const std::string name =
      TemporaryName(Traces{.bound = true, .enabled = true, .started = true}, 371);
  EXPECT_EQ(name, "~7ab");
  const Snapshot crashed = After(PlanAccess("imic.0", Use::kReceive, name, board).state, board);
  const auto without = [](const std::string& relay, const std::string& tapout,
                          const Snapshot& snapshot) {
    return Without({relay, tapout, *TracesOf(relay)}, snapshot);
  };
  EXPECT_THAT(StepsTo(without(name, "tapout1", crashed), board), ElementsAre());
  // While another one reads the stream, the relay alone goes.
  const std::string shared = TemporaryName(Traces{}, 371);
  const Snapshot beside = After(PlanAccess("sspk.0", Use::kReceive, shared, board).state, board);
  EXPECT_THAT(StepsTo(without(shared, "tapout0", beside), board), ElementsAre());
  const Snapshot two = After(PlanAccess("imic.0", Use::kReceive, "~7ac", crashed).state, crashed);
  EXPECT_THAT(StepsTo(without("~7ac", "tapout1", two), crashed), ElementsAre());
  EXPECT_THAT(StepsTo(without("~7ac", "tapout1", After(without(name, "tapout1", two), two)), board),
              ElementsAre());
  for (const char* const other : {"pass", "~8aa", "~", "~7a", "~-ab"})
    EXPECT_FALSE(TracesOf(other));
}

}  // namespace
}  // namespace kvox::client
