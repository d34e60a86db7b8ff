// Endurance: thousands of flaps and hundreds of recoveries in a row.

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>

#include "tests/campaign/fault_kinds.h"
#include "tests/campaign/resource_trend.h"
#include "tests/campaign/run.h"

namespace kvox::campaign {
namespace {

constexpr unsigned kFlapRounds = 100;
constexpr unsigned kFlapsPerRound = 100;
constexpr unsigned kRoundsPerSample = 4;
constexpr unsigned kRecoveries = 300;
constexpr unsigned kRecoveriesPerSample = 12;
/// Rounds in which the allocator reaches its steady size.
constexpr unsigned kWarmUpRecoveries = 10;

class Endurance : public Run {
 public:
  explicit Endurance(const RunOptions& options)
      : Run(options, LoadProfile::kAggressive), random_(options.seed) {}

 private:
  bool Body() override;

  bool Recover(const std::string& fault);
  bool TakeSample();
  bool WarmUp();
  bool FlapNodes();
  bool RestartOften();
  bool JudgePart(const char* what);

  RandomSource random_;
  ResourceTrend trend_;
  uint64_t flaps_ = 0;
  uint64_t recoveries_ = 0;
  Ms slowest_{};
};

bool Endurance::Body() {
  fmt::print("{:>8}  {:>7}  {:>10}  {:>16}  {:>10}  {:>11}  {:>7}\n", "time", "flaps", "recoveries",
             "slowest recovery", "memory", "descriptors", "threads");
  return WarmUp() && FlapNodes() && RestartOften();
}

bool Endurance::Recover(const std::string& fault) {
  const auto recovery = testbed().Recover(fault);
  if (!recovery) return false;
  ++recoveries_;
  slowest_ = std::max(slowest_, *recovery);
  return true;
}

bool Endurance::TakeSample() {
  if (!testbed().Pause(PauseMode::kAtBaseline) || !testbed().CheckGraph()) return false;
  const ResourceUsage usage = testbed().processes().DaemonResources();
  trend_.Add(Seconds(), usage);
  fmt::print("{:>7.0f}s  {:>7}  {:>10}  {:>13} ms  {:>6} KiB  {:>11}  {:>7}\n", Seconds(), flaps_,
             recoveries_, slowest_.count(), usage.memory_kib, usage.descriptors, usage.threads);
  std::fflush(stdout);
  testbed().Resume();
  return true;
}

bool Endurance::WarmUp() {
  testbed().Resume();
  for (unsigned i = 0; i < kWarmUpRecoveries; ++i) {
    if (!Recover("restart gap=0.05")) return false;
  }
  return TakeSample();
}

/// Of all kinds of nodes, at different speeds.
bool Endurance::FlapNodes() {
  static constexpr const char* kDevices[] = {"tapout0", "inject0",  "control",
                                             "inject5", "tapout40", "tapout4"};
  for (unsigned round = 0; round < kFlapRounds; ++round) {
    const std::string fault =
        fmt::format("flap device={} times={} gap={:.3f}", kDevices[round % std::size(kDevices)],
                    kFlapsPerRound, random_.Seconds(0.002, 0.01));
    if (!Recover(fault)) return false;
    flaps_ += kFlapsPerRound;
    if ((round + 1) % kRoundsPerSample == 0 && !TakeSample()) return false;
  }
  return JudgePart("flaps");
}

bool Endurance::RestartOften() {
  for (unsigned i = 0; i < kRecoveries; ++i) {
    if (!Recover(fmt::format("restart gap={:.3f}", random_.Seconds(0, 0.05)))) return false;
    if ((i + 1) % kRecoveriesPerSample == 0 && !TakeSample()) return false;
  }
  return JudgePart("recoveries");
}

/// Each part separately: a one-time growth in one of them is not a trend in the other.
bool Endurance::JudgePart(const char* what) {
  fmt::print("{}:\n", what);
  trend_.Judge(0, failures());
  trend_ = {};
  return testbed().Healthy();
}

}  // namespace

int RunEndurance(const RunOptions& options) {
  return Endurance(options).Execute();
}

}  // namespace kvox::campaign
