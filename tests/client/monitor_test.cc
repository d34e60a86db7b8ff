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

TEST(Rows, MetricsAreOfTheLastPoll) {
  const Metrics metrics = MetricsOf({.blocks = 9, .average_period_ms = 10, .active_ms = {1, 4, 1}});
  EXPECT_DOUBLE_EQ(*metrics.active_ms, 2);
  EXPECT_DOUBLE_EQ(*metrics.max_active_ms, 4);
  EXPECT_DOUBLE_EQ(*metrics.active_share, 0.2);
  EXPECT_EQ(MetricsOf({.active_ms = {1}}).active_share, std::nullopt)
      << "there is no period to divide by";
}

flight::FlightView Log(uint64_t lost, uint64_t arrivals_3ms_off) {
  flight::FlightView log;
  log.started_ns = 7;
  log.streams.resize(1);
  flight::StreamView& stream = log.streams[0];
  stream.name = "tapout0";
  stream.lost[1] = lost;
  stream.late = 2;
  stream.arrival_error.counts[flight::BucketOf(3'000'000)] = arrivals_3ms_off;
  stream.processing.counts[flight::BucketOf(80'000)] = 4 + arrivals_3ms_off;
  stream.processing.sum = 80'000 * (4 + arrivals_3ms_off);
  log.injects = {{.name = "inject0", .written = 5, .full = 1, .gone = 1}};
  return log;
}

TEST(Rows, FiguresAreLossesSinceTheStartAndJitterOfTenPolls) {
  FigureHistory history;
  auto figures = history.Add(Log(5, 0));
  EXPECT_EQ(figures["tapout0"].lost, 5u);
  EXPECT_EQ(figures["tapout0"].late, 2u);
  EXPECT_FALSE(figures["tapout0"].fresh) << "when it was lost is not known";
  EXPECT_EQ(figures["tapout0"].jitter_ms, std::nullopt);
  EXPECT_DOUBLE_EQ(*figures["tapout0"].busy_us, 80);
  EXPECT_EQ(figures["inject0"].lost, 2u);
  figures = history.Add(Log(6, 10));
  EXPECT_TRUE(figures["tapout0"].fresh);
  EXPECT_NEAR(*figures["tapout0"].jitter_ms, 3, 0.7);
  for (size_t i = 0; i < FigureHistory::kPolls; ++i) figures = history.Add(Log(6, 10));
  EXPECT_FALSE(figures["tapout0"].fresh);
  EXPECT_EQ(figures["tapout0"].jitter_ms, std::nullopt) << "no packet has come lately";
  flight::FlightView restarted = Log(1, 1);
  restarted.started_ns = 8;
  EXPECT_FALSE(history.Add(restarted)["tapout0"].fresh);
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
              StartsWith("tap-out   ?[2J??    -    off          -      -      -      - -"));
}

TEST(Frame, FitsEveryScreen) {
  const auto columns = ColumnsOf(true);
  const std::vector<Row> rows(30, RowNamed("tapout0"));
  for (int lines = 1; lines <= 40; ++lines) {
    for (const int width : {1, 9, 80, 300}) {
      View view{.first = 1000};
      const auto frame = DrawFrame("kvoxd", rows, false, columns, {lines, width}, view);
      EXPECT_LE(frame.size(), static_cast<size_t>(lines));
      EXPECT_EQ(view.first, std::max(30 - PageOf({lines, width}), 0));
      for (const FrameLine& line : frame) {
        EXPECT_LE(line.text.size(), static_cast<size_t>(width));
      }
    }
  }
  View view;
  const auto frame = DrawFrame("kvoxd", {}, false, columns, {8, 200}, view);
  ASSERT_EQ(frame.size(), 8u);
  EXPECT_EQ(frame[0].text, "kvoxd");
  EXPECT_THAT(frame[1].text, StartsWith("OBJECT"));
  EXPECT_THAT(
      frame[7].text,
      StartsWith(
          "q quit  sort by Object Name Type State Lost latE Jitter bUsy Period Active Max sHare"));
}

TEST(Frame, ShowsWhatMattersAndOnlyWhatIsAskedFor) {
  const auto columns = ColumnsOf(false);
  std::vector<Row> rows = {RowNamed("tapout0"), RowNamed("tapout1"), RowNamed("inject1")};
  rows[0].enabled = rows[2].enabled = true;
  rows[0].figures = StreamFigures{.lost = 3, .fresh = true};
  rows[0].to = {"a-very-long-name-of-a-processor"};
  View view;
  const auto styles = [&](bool stale) {
    std::vector<Style> result;
    for (const FrameLine& line : DrawFrame("kvoxd", rows, stale, columns, {6, 60}, view)) {
      result.push_back(line.style);
    }
    return result;
  };
  using enum Style;
  EXPECT_THAT(styles(false), ElementsAre(kBold, kReverse, kAlarm, kDim, kPlain, kReverse));
  EXPECT_THAT(styles(true), ElementsAre(kAlarm, kReverse, kDim, kDim, kDim, kReverse));

  for (const int key : {int{'/'}, int{'t'}, int{'q'}, int{kKeyBackspace}})
    ApplyKey(key, columns, 3, 3, view);
  for (const char key : std::string("apout1")) ApplyKey(key, columns, 3, 3, view);
  auto frame = DrawFrame("kvoxd", rows, false, columns, {6, 60}, view);
  EXPECT_THAT(frame[2].text, StartsWith("tap-out   tapout1"));
  EXPECT_EQ(frame[3].text, "");
  EXPECT_THAT(frame[5].text, StartsWith("filter: tapout1_"));
  ApplyKey('\n', columns, 3, 3, view);
  ApplyKey('n', columns, 3, 3, view);
  EXPECT_EQ(view.filter, "tapout1") << "letters sort again";
  for (const int key : {int{'/'}, 27}) ApplyKey(key, columns, 3, 3, view);
  EXPECT_EQ(view.filter, "");

  for (int i = 0; i < 9; ++i) ApplyKey(kKeyRight, columns, 3, 3, view);
  frame = DrawFrame("kvoxd", rows, false, columns, {6, 60}, view);
  EXPECT_TRUE(frame[3].text.ends_with("a-very-long-name-of-a-processor"));
  EXPECT_EQ(frame[3].text.size(), 60u);
  EXPECT_EQ(frame[0].text, "kvoxd");
  for (int i = 0; i < 9; ++i) ApplyKey(kKeyLeft, columns, 3, 3, view);
  EXPECT_EQ(view.left, 0);
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
