#include "tests/campaign/endurance.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>

#include "tests/campaign/resource_trend.h"
#include "tests/campaign/stage.h"

namespace kvox::campaign {
namespace {

constexpr unsigned kFlapRounds = 100;
constexpr unsigned kFlapsARound = 100;
constexpr unsigned kRoundsASample = 4;
constexpr unsigned kRecoveries = 300;
constexpr unsigned kRecoveriesASample = 12;
/// The allocator finds its size in the first ones.
constexpr unsigned kWarmUpRecoveries = 10;

class EnduranceRun {
 public:
  explicit EnduranceRun(const CampaignOptions& options)
      : dice_(options.seed), stage_(static_cast<unsigned>(options.seed), Manner::kRough) {}

  bool Run();
  Stage& stage() { return stage_; }

 private:
  bool Recover(const std::string& words);
  bool TakeSample();
  bool WarmUp();
  bool Flap();
  bool RecoverOften();
  bool JudgePart(const char* what);
  double Seconds() const { return std::chrono::duration<double>(Clock::now() - begin_).count(); }

  Dice dice_;
  Stage stage_;
  ResourceTrend trend_;
  const Clock::time_point begin_ = Clock::now();
  uint64_t flaps_ = 0;
  uint64_t recoveries_ = 0;
  Ms slowest_{};
};

bool EnduranceRun::Recover(const std::string& words) {
  const auto recovery = stage_.Restart(words);
  if (!recovery) return false;
  ++recoveries_;
  slowest_ = std::max(slowest_, *recovery);
  return true;
}

bool EnduranceRun::TakeSample() {
  if (!stage_.Halt(Stand::kAtReference) || !stage_.CheckGraph()) return false;
  const ResourceUsage resources = stage_.machine().DaemonResources();
  trend_.Add(Seconds(), resources);
  fmt::print("{:>7.0f}s  {:>7}  {:>10}  {:>13} ms  {:>6} KiB  {:>11}  {:>7}\n", Seconds(), flaps_,
             recoveries_, slowest_.count(), resources.memory_kib, resources.descriptors,
             resources.threads);
  std::fflush(stdout);
  stage_.Resume();
  return true;
}

bool EnduranceRun::WarmUp() {
  stage_.Resume();
  for (unsigned i = 0; i < kWarmUpRecoveries; ++i) {
    if (!Recover("restart gap=0.05")) return false;
  }
  return TakeSample();
}

/// Of all kinds of nodes, some faster and some slower.
bool EnduranceRun::Flap() {
  static constexpr const char* kDevices[] = {"tapout0", "inject0",  "control",
                                             "inject5", "tapout40", "tapout4"};
  for (unsigned round = 0; round < kFlapRounds; ++round) {
    const std::string words =
        fmt::format("flap device={} times={} gap={:.3f}", kDevices[round % std::size(kDevices)],
                    kFlapsARound, dice_.Seconds(0.002, 0.01));
    if (!Recover(words)) return false;
    flaps_ += kFlapsARound;
    if ((round + 1) % kRoundsASample == 0 && !TakeSample()) return false;
  }
  return JudgePart("flaps");
}

bool EnduranceRun::RecoverOften() {
  for (unsigned i = 0; i < kRecoveries; ++i) {
    if (!Recover(fmt::format("restart gap={:.3f}", dice_.Seconds(0, 0.05)))) return false;
    if ((i + 1) % kRecoveriesASample == 0 && !TakeSample()) return false;
  }
  return JudgePart("recoveries");
}

/// Each part on its own: what one of them leaves behind once is no trend of the other.
bool EnduranceRun::JudgePart(const char* what) {
  fmt::print("{}:\n", what);
  trend_.Judge(0, stage_.findings());
  trend_ = {};
  return stage_.Healthy();
}

bool EnduranceRun::Run() {
  fmt::print("{:>8}  {:>7}  {:>10}  {:>16}  {:>10}  {:>11}  {:>7}\n", "time", "flaps", "recoveries",
             "slowest recovery", "memory", "descriptors", "threads");
  return WarmUp() && Flap() && RecoverOften();
}

}  // namespace

int RunEndurance(const CampaignOptions& options) {
  fmt::print("repeat with: {}\n", options.repeat);
  EnduranceRun run(options);
  Stage& stage = run.stage();
  bool passed = false;
  try {
    passed = run.Run();
  } catch (const SimError& error) {
    stage.Healthy();
    stage.findings().Add("{}", error.what());
  }
  fmt::print("{:.0f} % of the time the machine had no processor for whoever was to wake up\n",
             100 * stage.load().LostShare());
  for (const std::string& finding : stage.findings().all()) fmt::print("FAULT: {}\n", finding);
  if (!passed) {
    stage.KeepLogs(options.logs);
    fmt::print("The logs of kvoxd and kvosim are in {}.\n", options.logs.string());
  }
  fmt::print("{}.\nrepeat with: {}\n", passed ? "Passed" : "FAILED", options.repeat);
  return passed ? 0 : 1;
}

}  // namespace kvox::campaign
