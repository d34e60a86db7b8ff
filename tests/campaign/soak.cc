// The soak: many streams for a long time.

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "tests/campaign/loss_report.h"
#include "tests/campaign/resource_trend.h"
#include "tests/campaign/run.h"

namespace kvox::campaign {
namespace {

/// How often things happen in a soak of a given length.
struct Schedule {
  explicit Schedule(double minutes)
      : length_s(minutes * 60),
        row_s(std::clamp(length_s / 60, 2.0, 30.0)),
        restart_s(std::clamp(length_s / 6, 12.0, 300.0)),
        warm_up_s(length_s / 5) {}
  double length_s;
  double row_s;
  double restart_s;
  double warm_up_s;
};

/// After this time the simulator has given up every packet that will not come back, and the daemon
/// has reported every slow client.
constexpr Ms kSettlingTime{2500};

/// One in the device, one on each side of the daemon.
constexpr uint64_t kLostPerRestart = 3;

/// Between two restarts there is a stretch of time without a fault. In it no packet may be lost
/// without a cause.
class Soak : public Run {
 public:
  explicit Soak(const SoakOptions& options)
      : Run(options, LoadProfile::kLossless), schedule_(options.minutes) {}

 private:
  bool Body() override;
  void PrintSummary() override;

  bool StartStretch();
  bool EndStretch();
  bool PrintRow();
  void JudgeLosses(const LossReport& report, unsigned stalls);
  LossSample TakeSample();

  const Schedule schedule_;
  ResourceTrend trend_;

  // The present stretch.
  double stretch_s_ = 0;  // its start
  LossSample stretch_start_;
  SimStatus last_row_;            // as the simulator counted at the last row
  unsigned last_row_stalls_ = 0;  // of the machine, up to there
  uint64_t lost_ = 0;
  unsigned judged_stalls_ = 0;    // up to what was judged last
  unsigned previous_stalls_ = 0;  // up to what was judged before that

  // Sums over the stretches that have ended.
  LossReport total_;
  uint64_t restarts_ = 0;
  uint64_t lost_in_restarts_ = 0;
  uint64_t lost_in_stalls_ = 0;
  Ms slowest_recovery_{};
};

/// The clients are paused: no stream is being switched.
LossSample Soak::TakeSample() {
  testbed().Healthy();  // reads the log
  return {testbed().processes().sim().Status(), testbed().processes().log()};
}

/// Begins with a restart: the first recovery of all leaves a thread that waits for the next one.
bool Soak::StartStretch() {
  const SimStatus before = testbed().processes().sim().Status();
  const unsigned stalls_before = judged_stalls_;
  const auto recovery = testbed().Recover("restart gap=0.2");
  if (!recovery || !testbed().RunFor(kSettlingTime) || !testbed().Pause(PauseMode::kAtBaseline)) {
    return false;
  }
  stretch_start_ = TakeSample();
  stretch_s_ = Seconds();
  last_row_ = stretch_start_.sim;
  last_row_stalls_ = testbed().run().lag.Stalls();
  lost_ = 0;
  const uint64_t lost = MissingBetween(before, last_row_);
  const uint64_t limit = kLostPerRestart * Streams().size();
  if (lost > limit && last_row_stalls_ == stalls_before) {
    failures().Add("a restart cost {} packets; {} may be in flight", lost, limit);
  }
  ++restarts_;
  lost_in_restarts_ += lost;
  slowest_recovery_ = std::max(slowest_recovery_, *recovery);
  testbed().Resume();
  return testbed().Healthy();
}

/// Measures at the baseline, so that rows can be compared.
bool Soak::PrintRow() {
  if (!testbed().Pause(PauseMode::kAtBaseline) || !testbed().CheckGraph()) return false;
  const LossSample now = TakeSample();
  const LossReport report = LossesBetween(stretch_start_, now);
  JudgeLosses(LossesBetween(stretch_start_, {last_row_, now.log}), last_row_stalls_);
  last_row_ = now.sim;
  last_row_stalls_ = testbed().run().lag.Stalls();
  const ResourceUsage usage = testbed().processes().DaemonResources();
  const double seconds = Seconds();
  trend_.Add(seconds, usage);
  fmt::print("{:>7.0f}s  {:>9.1f}  {:>5}  {:>7}  {:>5}  {:>9}  {:>5} KiB  {:>11}  {:>7}\n", seconds,
             static_cast<double>(report.passed) / std::max(seconds - stretch_s_, 0.001), lost_,
             total_.timing + report.timing, total_.slow_clients + report.slow_clients, restarts_,
             usage.memory_kib, usage.descriptors, usage.threads);
  std::fflush(stdout);
  testbed().Resume();
  return true;
}

/// The daemon's log names slow clients up to a second later, so what was counted is compared with a
/// newer log. A machine that stalled in the judged row or in the one before may have kept the
/// simulator from what came back: it counts a packet as missing after two seconds. `stalls` are
/// those up to the end of the judged row.
void Soak::JudgeLosses(const LossReport& report, unsigned stalls) {
  if (report.lost > lost_ && stalls == previous_stalls_) {
    for (const std::string& stream : report.streams) {
      failures().Add("packets were lost without a fault: {}", stream);
    }
  } else if (report.lost > lost_) {
    lost_in_stalls_ += report.lost - lost_;
  }
  lost_ = std::max(lost_, report.lost);
  previous_stalls_ = std::exchange(judged_stalls_, stalls);
}

bool Soak::EndStretch() {
  if (!testbed().Pause(PauseMode::kAtBaseline)) return false;
  const SimStatus end = TakeSample().sim;
  const unsigned stalls = testbed().run().lag.Stalls();
  testbed().Resume();
  if (!testbed().RunFor(kSettlingTime)) return false;
  const LossReport report = LossesBetween(stretch_start_, {end, testbed().processes().log()});
  JudgeLosses(report, stalls);
  total_.timing += report.timing;
  total_.slow_clients += report.slow_clients;
  total_.passed += report.passed;
  return testbed().Healthy();
}

bool Soak::Body() {
  fmt::print("{:>8}  {:>9}  {:>5}  {:>7}  {:>5}  {:>9}  {:>9}  {:>11}  {:>7}\n", "time",
             "packets/s", "lost", "timing", "slow", "restarts", "memory", "descriptors", "threads");
  testbed().Resume();
  if (!StartStretch()) return false;
  double next_restart_s = schedule_.restart_s;
  while (Seconds() < schedule_.length_s) {
    if (!testbed().RunFor(Ms(static_cast<int64_t>(schedule_.row_s * 1000))) || !PrintRow()) {
      return false;
    }
    if (Seconds() < next_restart_s || Seconds() + schedule_.row_s > schedule_.length_s) continue;
    next_restart_s += schedule_.restart_s;
    if (!EndStretch() || !StartStretch()) return false;
  }
  if (!EndStretch()) return false;
  trend_.Judge(schedule_.warm_up_s, failures());
  return !failures().any();
}

void Soak::PrintSummary() {
  fmt::print("{} packets passed, {} lost because of their timing, {} blocks by slow clients\n",
             total_.passed, total_.timing, total_.slow_clients);
  fmt::print("{} packets lost when the machine stalled {} times\n", lost_in_stalls_,
             testbed().run().lag.Stalls());
  fmt::print("{} restarts cost {} packets; slowest recovery {} ms\n", restarts_, lost_in_restarts_,
             slowest_recovery_.count());
}

}  // namespace

int RunSoak(const SoakOptions& options) {
  return Soak(options).Execute();
}

}  // namespace kvox::campaign
