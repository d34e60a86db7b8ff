#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "client/monitor/diff.h"
#include "client/monitor/screen.h"
#include "client/monitor/top_model.h"
#include "client/monitor/top_text.h"

namespace kvox::client {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

constexpr auto kNoWait = std::chrono::seconds(0);

std::vector<std::string> LinesOf(const std::vector<Change>& changes) {
  std::vector<std::string> lines;
  for (const Change& change : changes) lines.push_back(LineOf(change));
  return lines;
}

Processor Pass(const std::string& id, const std::string& input = "") {
  Processor processor;
  processor.id = id;
  processor.type = "pass";
  processor.input = input;
  return processor;
}

TapPoint Tap(int core, const std::string& code) {
  TapPoint tap;
  tap.core = core;
  tap.code = code;
  return tap;
}

Sample Measured(double period_ms) {
  Sample sample;
  sample.processors = {Pass("pass")};
  sample.measurements["pass"] = {7, period_ms, {}};
  return sample;
}

TEST(Diff, AreToldObjectByObject) {
  Sample before;
  before.processors = {Pass("gone"), Pass("kept", "tapout0"), Pass("same")};
  before.buffers = {{.name = "tapout0", .producer = "", .consumers = {}, .enabled = true}};
  before.taps = {Tap(2, "imic")};
  Sample now;
  now.processors = {Pass("kept", "tapout1"), Pass("same"), Pass("came", "tapout0")};
  now.processors[0].enabled = true;
  now.processors[1].type = "arel";
  now.buffers = {{.name = "tapout0", .producer = "", .consumers = {"came"}}};
  now.taps = {Tap(2, "imic")};
  now.taps[0].inject = "inject3";
  EXPECT_THAT(LinesOf(Diff(before, now)),
              ElementsAre("processor gone gone", "processor same gone",
                          "processor kept disconnected input tapout0",
                          "processor kept connected input tapout1", "processor kept enabled",
                          "processor same appeared type arel", "processor came appeared type pass",
                          "processor came connected input tapout0", "tap-out tapout0 disabled",
                          "tap 2:imic.0 bound inject inject3"));
  EXPECT_THAT(Diff(now, now), IsEmpty());
}

TEST(Diff, TapPointsOfASilentCoreAreNotGone) {
  Sample before;
  before.taps = {Tap(2, "imic"), Tap(3, "sspk")};
  Sample silent;
  silent.taps = {Tap(3, "sspk")};
  silent.silent_cores = {2};
  EXPECT_THAT(LinesOf(Diff(before, silent)), ElementsAre("core 2 silent"));
  Sample after;
  after.taps = {Tap(3, "sspk")};
  EXPECT_THAT(LinesOf(Diff(silent, after)), ElementsAre("core 2 answers", "tap 2:imic.0 gone"));
}

TEST(Rows, MetricsAreOfTheLastPollAndJitterOfTen) {
  const Metrics metrics =
      MetricsOf({.blocks = 9, .average_period_ms = 10, .active_ms = {1, 4, 1}}, std::nullopt);
  EXPECT_DOUBLE_EQ(*metrics.active_ms, 2);
  EXPECT_DOUBLE_EQ(*metrics.max_active_ms, 4);
  EXPECT_DOUBLE_EQ(*metrics.active_share, 0.2);
  EXPECT_EQ(MetricsOf({.active_ms = {1}}, std::nullopt).active_share, std::nullopt)
      << "there is no period to divide by";

  PeriodHistory history;
  history.Add(Measured(20));
  EXPECT_EQ(history.JitterMs("pass"), std::nullopt);
  for (const double period_ms : {10.0, 10.5, 10.0}) history.Add(Measured(period_ms));
  EXPECT_DOUBLE_EQ(*history.JitterMs("pass"), 10);
  for (size_t i = 0; i < PeriodHistory::kPolls - 2; ++i) history.Add(Measured(10.25));
  EXPECT_DOUBLE_EQ(*history.JitterMs("pass"), 0.5) << "the first polls are forgotten";
  history.Add(Measured(0));
  EXPECT_EQ(history.JitterMs("pass"), std::nullopt) << "it has paused";
}

std::vector<std::string> NamesAfter(std::vector<Row> rows, const Order& order) {
  Sort(rows, order);
  std::vector<std::string> names;
  for (const Row& row : rows) names.push_back(row.name);
  return names;
}

Row RowNamed(const std::string& name, std::optional<double> share = std::nullopt) {
  Row row;
  row.object = "tap-out";
  row.name = name;
  if (share) row.metrics = Metrics{.active_share = share};
  return row;
}

TEST(Rows, AreSortedByTextOrNumber) {
  const auto columns = ColumnsOf(true);
  const std::vector<Row> rows = {RowNamed("tapout10", 0.1), RowNamed("tapout9"),
                                 RowNamed("tapout009x", 0.9), RowNamed("a")};
  EXPECT_THAT(NamesAfter(rows, {}), ElementsAre("tapout10", "tapout9", "tapout009x", "a"));
  EXPECT_THAT(NamesAfter(rows, {FindColumn(columns, "name")}),
              ElementsAre("a", "tapout9", "tapout009x", "tapout10"));
  EXPECT_THAT(NamesAfter(rows, {FindColumn(columns, "share")}),
              ElementsAre("tapout009x", "tapout10", "tapout9", "a"));
  EXPECT_THAT(NamesAfter(rows, {FindColumn(columns, 'h'), true}),
              ElementsAre("tapout10", "tapout009x", "tapout9", "a"))
      << "what was not measured stays last";
  EXPECT_EQ(FindColumn(ColumnsOf(false), "share"), nullptr);
}

TEST(Rows, NeverPassControlCharactersOn) {
  EXPECT_THAT(LineOf(ColumnsOf(false), RowNamed("\x1b[2J\xc3\xa9")),
              StartsWith("tap-out   ?[2J??    -    off     -"));
}

TEST(Frame, FitsEveryScreen) {
  const auto columns = ColumnsOf(true);
  const std::vector<Row> rows(30, RowNamed("tapout0"));
  for (int lines = 1; lines <= 40; ++lines) {
    for (const int width : {1, 9, 80, 300}) {
      View view{.first = 1000};
      const auto frame = DrawFrame("kvoxd", rows, columns, {lines, width}, view);
      EXPECT_LE(frame.size(), static_cast<size_t>(lines));
      EXPECT_EQ(view.first, std::max(30 - PageOf({lines, width}), 0));
      for (const FrameLine& line : frame) {
        EXPECT_LE(line.text.size(), static_cast<size_t>(width));
      }
    }
  }
  View view;
  const auto frame = DrawFrame("kvoxd", {}, columns, {8, 200}, view);
  ASSERT_EQ(frame.size(), 8u);
  EXPECT_EQ(frame[0].text, "kvoxd");
  EXPECT_THAT(frame[1].text, StartsWith("OBJECT"));
  EXPECT_THAT(
      frame[7].text,
      StartsWith("q quit  sort by Object Name Type State Period Jitter Active Max sHare Blocks"));
}

TEST(Frame, KeysSortAndMove) {
  const auto columns = ColumnsOf(false);
  View view;
  ApplyKey('n', columns, 30, 10, view);
  EXPECT_EQ(view.order.column, FindColumn(columns, "name"));
  EXPECT_FALSE(view.order.reversed);
  ApplyKey('N', columns, 30, 10, view);
  EXPECT_TRUE(view.order.reversed);
  ApplyKey('s', columns, 30, 10, view);
  EXPECT_FALSE(view.order.reversed) << "another column begins anew";
  const struct {
    int key;
    int first;
  } presses[] = {{kKeyUp, 0},      {kKeyDown, 1}, {kKeyPageDown, 11}, {kKeyPageDown, 20},
                 {kKeyPageUp, 10}, {kKeyEnd, 20}, {kKeyDown, 20},     {kKeyHome, 0},
                 {'h', 0},         {0, 0},        {kKeyEnd, 20}};
  for (const auto& press : presses) {
    ApplyKey(press.key, columns, 30, 10, view);
    EXPECT_EQ(view.first, press.first) << press.key;
  }
  ApplyKey(kKeyUp, columns, 3, 10, view);
  EXPECT_EQ(view.first, 0) << "fewer rows than a page";
}

TEST(TerminalReset, LeavesDelaysOut) {
  EXPECT_EQ(WithoutDelays("\x1b[?25h"), "\x1b[?25h");
  EXPECT_EQ(WithoutDelays("$<5/>a$<20*>b$"), "ab$");
  EXPECT_EQ(WithoutDelays("$<5"), "");
}

TEST(TopModel, KeepsItsRowsWhenTheDaemonGoes) {
  TopModel model;
  EXPECT_EQ(model.Head(kNoWait), "waiting for kvoxd");
  model.Update({.sample = Measured(10), .error = "", .took_ms = 1.25}, "12:00:00");
  EXPECT_EQ(model.Head(kNoWait), "kvoxd answers in 1.2 ms | 1 processor, 0 buffers | 12:00:00");
  EXPECT_EQ(model.Head(std::chrono::seconds(3)), "kvoxd has not answered for 3 s");
  model.Update({.sample = {}, .error = "no socket"}, "12:00:01");
  model.Update({.sample = {}, .error = "no socket"}, "12:00:02");
  EXPECT_EQ(model.Head(kNoWait), "kvoxd is away since 12:00:01: no socket");
  EXPECT_EQ(model.rows().size(), 1u);
  EXPECT_FALSE(model.present());
}

}  // namespace
}  // namespace kvox::client
