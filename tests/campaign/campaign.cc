#include "tests/campaign/campaign.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <thread>

#include "tests/campaign/fault_report.h"
#include "tests/campaign/leak_check.h"
#include "tests/campaign/restorer.h"
#include "tests/campaign/stage.h"

namespace kvox::campaign {
namespace {

/// A fault that waits for packets or commands meets them within this time.
constexpr Ms kFaultPatience{10000};
/// For an answer while nobody else asks.
constexpr Ms kPingLimit{200};
/// For audio that was never disturbed, or switched on a moment ago.
constexpr Ms kFlowLimit{500};
constexpr uint64_t kFaultsPerCheckpoint = 25;

class CampaignRun {
 public:
  explicit CampaignRun(const CampaignOptions& options)
      : options_(options),
        plan_(options.seed, options.quick, FindFaultKind(options.only)),
        stage_(static_cast<unsigned>(options.seed), Manner::kRough),
        restorer_(stage_.shared()),
        leaks_(stage_) {}

  bool Run();
  Stage& stage() { return stage_; }
  const FaultReport& report() const { return report_; }

 private:
  bool Goes(const FaultEvent& event);
  bool Inject(const FaultEvent& event);
  bool Recovers(const FaultEvent& event);
  bool AllIsWell();
  bool Answers();
  bool AudioFlows(AudioCheck& audio, const StreamList& streams, Ms limit, Ms& recovery);
  bool Finished() const;
  double Seconds() const { return std::chrono::duration<double>(Clock::now() - begin_).count(); }

  const CampaignOptions& options_;
  FaultPlan plan_;
  Stage stage_;
  Restorer restorer_;
  LeakCheck leaks_;
  FaultReport report_;
  Clock::time_point begin_ = Clock::now();
};

bool CampaignRun::Finished() const {
  if (report_.faults() >= options_.count) return true;
  return options_.time > Ms(0) && Clock::now() - begin_ > options_.time;
}

bool CampaignRun::Run() {
  stage_.Resume();
  // The first recovery leaves a thread that waits for the next one.
  if (!stage_.Restart("restart gap=0.1") || !leaks_.Begin()) return false;
  uint64_t next_checkpoint = kFaultsPerCheckpoint;
  while (!Finished()) {
    const FaultEvent event = plan_.Next();
    if (!Goes(event)) {
      stage_.findings().Add("the fault was: {}", event.Text());
      return false;
    }
    if (report_.faults() < next_checkpoint) continue;
    next_checkpoint += kFaultsPerCheckpoint;
    if (!leaks_.Check()) return false;
    fmt::print("{:>6.0f} s  {} faults, {}\n", Seconds(), report_.faults(),
               stage_.machine().DaemonResources().Text());
    std::fflush(stdout);
  }
  return leaks_.Check();
}

bool CampaignRun::Goes(const FaultEvent& event) {
  report_.Injected(event);
  stage_.phase().Set(Phase::kDisturbed);
  if (!Inject(event) || !stage_.AwaitEndOfFaults(kFaultPatience)) return false;
  if (!Recovers(event)) return false;
  stage_.phase().Set(Phase::kCalm);
  stage_.Resume();
  return stage_.Run(event.calm);
}

bool CampaignRun::Inject(const FaultEvent& event) {
  for (const auto& part : event.parts) {
    std::this_thread::sleep_for(part.after);
    for (const std::string& words : part.injection.words) stage_.sim().Fault(words);
    if (part.injection.kills) stage_.machine().ReplaceSimulator(part.injection.away);
  }
  return stage_.Run(event.Lasts());
}

/// Audio first, because its time counts; then all that stands still.
bool CampaignRun::Recovers(const FaultEvent& event) {
  AudioCheck audio(stage_.sim(), stage_.load());
  if (event.MaySpoilRestore()) restorer_.AskAgain(stage_.Flowing(false));
  Ms recovery{};
  if (!AudioFlows(audio, stage_.Flowing(false), event.RecoveryLimit(), recovery)) return false;
  const Ms step = event.MaySpoilRestore() ? kUnansweredStep : kRestoreStep;
  if (event.TouchesNodes() && !stage_.AwaitRestored(step)) return false;
  stage_.phase().Set(Phase::kSettling);
  if (!stage_.Halt(Stand::kAnyhow)) return false;
  if (event.MaySpoilRestore()) restorer_.AskAgain({});
  if (!AllIsWell()) return false;
  report_.Recovered(event, recovery);
  return true;
}

bool CampaignRun::AllIsWell() {
  AudioCheck audio(stage_.sim(), stage_.load());
  Ms ignored{};
  return Answers() && AudioFlows(audio, stage_.Flowing(true), kFlowLimit, ignored) &&
         stage_.CheckGraph();
}

bool CampaignRun::Answers() {
  const Ms lost_before = stage_.load().Lost();
  const auto begin = Clock::now();
  const bool answered = stage_.machine().caller().Ping();
  const auto time = std::chrono::duration_cast<Ms>(Clock::now() - begin);
  const Ms limit = kPingLimit + stage_.load().Allowance(lost_before);
  if (!answered || time > limit) {
    stage_.findings().Add("Ping: {} after {} ms, {} are allowed",
                          answered ? "answered" : "not answered", time.count(), limit.count());
  }
  return stage_.Healthy();
}

bool CampaignRun::AudioFlows(AudioCheck& audio, const StreamList& streams, Ms limit, Ms& recovery) {
  const Recovery result = audio.Await(streams, limit);
  if (!result.failure.empty()) stage_.findings().Add("audio: {}", result.failure);
  recovery = result.slowest;
  return stage_.Healthy();
}

}  // namespace

int RunCampaign(const CampaignOptions& options) {
  fmt::print("repeat with: {}\n", options.repeat);
  std::fflush(stdout);
  const auto begin = Clock::now();
  CampaignRun run(options);
  bool passed = false;
  try {
    passed = run.Run();
  } catch (const SimError& error) {
    run.stage().Healthy();
    run.stage().findings().Add("{}", error.what());
  }
  run.report().Print();
  Stage& stage = run.stage();
  fmt::print(
      "\n{} faults in {} events within {:.0f} s; {} commands, {} of them refused while that "
      "was to be expected; slowest {}\n",
      run.report().faults(), run.report().events(),
      std::chrono::duration<double>(Clock::now() - begin).count(), stage.shared().commands.load(),
      stage.shared().refused.load(), stage.machine().calls().Slowest());
  fmt::print(
      "{:.0f} % of the time the machine had no processor for whoever was to wake up; {} commands "
      "were refused by that\n",
      100 * stage.load().LostShare(), stage.shared().starved.load());
  fmt::print("{} lines are missing from the daemon's log\n", stage.machine().ledger().lost_lines());
  for (const std::string& finding : stage.findings().all()) fmt::print("FAULT: {}\n", finding);
  if (!passed) {
    stage.KeepLogs(options.logs);
    fmt::print("The logs of kvoxd and kvosim are in {}.\n", options.logs.string());
  }
  fmt::print("{}.\nrepeat with: {}\n", passed ? "Passed" : "FAILED", options.repeat);
  return passed ? 0 : 1;
}

}  // namespace kvox::campaign
