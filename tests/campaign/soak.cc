#include "tests/campaign/soak.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "tests/campaign/resource_trend.h"
#include "tests/campaign/soak_ledger.h"
#include "tests/campaign/stage.h"

namespace kvox::campaign {
namespace {

/// How often things happen, in a soak of a given length.
struct Rhythm {
  explicit Rhythm(Ms length)
      : row(std::clamp(length / 60, Ms(2000), Ms(30000))),
        restart(std::clamp(length / 6, Ms(12000), Ms(300000))),
        warm_up(length / 5) {}
  Ms row;
  Ms restart;
  Ms warm_up;
};

/// After this time the simulator has given up every packet that will not come back, and the daemon
/// has reported every slow client.
constexpr Ms kBooked{2500};

/// A packet in the device and one in each hand of the daemon.
constexpr uint64_t kLostInRestart = 3;

class SoakRun {
 public:
  explicit SoakRun(const SoakOptions& options)
      : length_(static_cast<int64_t>(options.minutes * 60000)),
        rhythm_(length_),
        stage_(options.seed, Manner::kOrderly) {}

  bool Run();
  void KeepLogs(const std::filesystem::path& directory) { stage_.KeepLogs(directory); }
  void PrintOutcome(bool passed);

 private:
  bool Begin();
  bool Row();
  bool RestartAndSettle();
  bool EndCalm();
  void JudgeLosses(const LossReport& report, unsigned stalls);
  Moment Now();
  Ms Elapsed() const { return std::chrono::duration_cast<Ms>(Clock::now() - begin_); }

  const Ms length_;
  const Rhythm rhythm_;
  Stage stage_;
  Clock::time_point begin_;
  Moment calm_since_;
  SimStatus earlier_;  // as counted when the last row was taken, or when the calm began
  unsigned earlier_stalls_ = 0;
  Ms calm_from_{};
  uint64_t lost_ = 0;           // since the calm began
  unsigned judged_stalls_ = 0;  // until what was judged last
  unsigned stalls_before_ = 0;  // and until what was judged before that
  ResourceTrend trend_;
  // Sums over the stretches without a fault that have ended.
  uint64_t timing_ = 0;
  uint64_t slow_ = 0;
  uint64_t passed_ = 0;
  uint64_t restarts_ = 0;
  uint64_t lost_in_restarts_ = 0;
  uint64_t lost_in_stalls_ = 0;
  Ms slowest_recovery_{};
};

/// The clients have to stand still: then streams are not being switched.
Moment SoakRun::Now() {
  stage_.Healthy();  // reads on in the log
  return {stage_.sim().Status(), stage_.machine().ledger()};
}

bool SoakRun::Begin() {
  fmt::print("{:>8}  {:>9}  {:>5}  {:>7}  {:>5}  {:>9}  {:>9}  {:>11}  {:>7}\n", "time",
             "packets/s", "lost", "timing", "slow", "restarts", "memory", "descriptors", "threads");
  // The first recovery leaves a thread that waits for the next one.
  begin_ = Clock::now();
  stage_.Resume();
  return RestartAndSettle();
}

/// One restart, and the time until all that it cost has been booked.
bool SoakRun::RestartAndSettle() {
  const SimStatus before = stage_.sim().Status();
  const unsigned stalls = judged_stalls_;
  const auto recovery = stage_.Restart("restart gap=0.2");
  if (!recovery || !stage_.Run(kBooked) || !stage_.Halt(Stand::kAtReference)) return false;
  calm_since_ = Now();
  earlier_ = calm_since_.sim;
  earlier_stalls_ = stage_.load().Stalls();
  calm_from_ = Elapsed();
  lost_ = 0;
  const uint64_t lost = MissingBetween(before, calm_since_.sim);
  const uint64_t bound = kLostInRestart * Streams().size();
  if (lost > bound && earlier_stalls_ == stalls) {
    stage_.findings().Add("a restart cost {} packets; {} may be under way", lost, bound);
  }
  ++restarts_;
  lost_in_restarts_ += lost;
  slowest_recovery_ = std::max(slowest_recovery_, *recovery);
  stage_.Resume();
  return stage_.Healthy();
}

/// Measures while everybody stands at the reference, so that rows can be compared.
bool SoakRun::Row() {
  if (!stage_.Halt(Stand::kAtReference)) return false;
  if (!stage_.CheckGraph()) return false;
  const Moment now = Now();
  const LossReport report = LossesBetween(calm_since_, now);
  JudgeLosses(LossesBetween(calm_since_, {earlier_, now.log}), earlier_stalls_);
  earlier_ = now.sim;
  earlier_stalls_ = stage_.load().Stalls();
  const ResourceUsage resources = stage_.machine().DaemonResources();
  const double seconds = static_cast<double>(Elapsed().count()) / 1000;
  const double calm_s = seconds - static_cast<double>(calm_from_.count()) / 1000;
  trend_.Add(seconds, resources);
  fmt::print("{:>7.0f}s  {:>9.1f}  {:>5}  {:>7}  {:>5}  {:>9}  {:>5} KiB  {:>11}  {:>7}\n", seconds,
             static_cast<double>(report.passed) / std::max(calm_s, 0.001), lost_,
             timing_ + report.timing, slow_ + report.slow_clients, restarts_, resources.memory_kib,
             resources.descriptors, resources.threads);
  std::fflush(stdout);
  stage_.Resume();
  return true;
}

/// The daemon's log tells of slow clients up to a second later, so what was counted is held against
/// a log that is newer. A machine that had no processor for us in the judged row or in the one
/// before may have kept the simulator from what came back: it books a packet as missing after two
/// seconds. `stalls` are those until the judged row was taken.
void SoakRun::JudgeLosses(const LossReport& report, unsigned stalls) {
  if (report.lost > lost_ && stalls == stalls_before_) {
    for (const std::string& stream : report.streams) {
      stage_.findings().Add("packets were lost without a fault: {}", stream);
    }
  } else if (report.lost > lost_) {
    lost_in_stalls_ += report.lost - lost_;
  }
  lost_ = std::max(lost_, report.lost);
  stalls_before_ = std::exchange(judged_stalls_, stalls);
}

/// The stretch without a fault ends now.
bool SoakRun::EndCalm() {
  if (!stage_.Halt(Stand::kAtReference)) return false;
  const SimStatus end = Now().sim;
  const unsigned stalls = stage_.load().Stalls();
  stage_.Resume();
  if (!stage_.Run(kBooked)) return false;
  const LossReport report = LossesBetween(calm_since_, {end, stage_.machine().ledger()});
  JudgeLosses(report, stalls);
  timing_ += report.timing;
  slow_ += report.slow_clients;
  passed_ += report.passed;
  return stage_.Healthy();
}

bool SoakRun::Run() {
  if (!Begin()) return false;
  Ms next_restart = rhythm_.restart;
  while (Elapsed() < length_) {
    if (!stage_.Run(rhythm_.row) || !Row()) return false;
    if (Elapsed() < next_restart || Elapsed() + rhythm_.row > length_) continue;
    next_restart += rhythm_.restart;
    if (!EndCalm() || !RestartAndSettle()) return false;
  }
  if (!EndCalm()) return false;
  trend_.Judge(static_cast<double>(rhythm_.warm_up.count()) / 1000, stage_.findings());
  return !stage_.findings().any();
}

void SoakRun::PrintOutcome(bool passed) {
  fmt::print("{} packets passed, {} lost by their timing, {} blocks by slow clients\n", passed_,
             timing_, slow_);
  fmt::print("{} packets lost and {} commands refused when the machine stood still {} times\n",
             lost_in_stalls_, stage_.shared().starved.load(), stage_.load().Stalls());
  fmt::print("{} restarts cost {} packets; slowest recovery {} ms; {} commands, slowest {}\n",
             restarts_, lost_in_restarts_, slowest_recovery_.count(),
             stage_.shared().commands.load(), stage_.machine().calls().Slowest());
  fmt::print("{:.0f} % of the time the machine had no processor for whoever was to wake up\n",
             100 * stage_.load().LostShare());
  fmt::print("{} lines are missing from the daemon's log\n",
             stage_.machine().ledger().lost_lines());
  for (const std::string& finding : stage_.findings().all()) fmt::print("FAULT: {}\n", finding);
  fmt::print("Soak {} after {:.1f} minutes.\n", passed ? "passed" : "FAILED",
             static_cast<double>(Elapsed().count()) / 60000);
}

}  // namespace

int Soak(const SoakOptions& options) {
  fmt::print("repeat with: {}\n", options.repeat);
  SoakRun run(options);
  bool passed = false;
  std::string problem;
  try {
    passed = run.Run();
  } catch (const SimError& error) {
    problem = error.what();
  }
  run.PrintOutcome(passed);
  if (!problem.empty()) fmt::print("FAULT: {}\n", problem);
  if (!passed) {
    run.KeepLogs(options.logs);
    fmt::print("The logs of kvoxd and kvosim are in {}.\n", options.logs.string());
  }
  fmt::print("repeat with: {}\n", options.repeat);
  return passed ? 0 : 1;
}

}  // namespace kvox::campaign
