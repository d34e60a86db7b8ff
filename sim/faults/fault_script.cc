#include "sim/faults/fault_script.h"

#include <algorithm>
#include <iterator>
#include <numeric>
#include <random>

namespace kvox::sim {
namespace {

using Steps = std::vector<FaultStep>;
using Devices = std::vector<std::string>;
using enum FaultStep::Action;

uint64_t Ns(double seconds) {
  return static_cast<uint64_t>(seconds * 1e9);
}

size_t IndexOf(const std::string& device, const Devices& devices) {
  return static_cast<size_t>(std::ranges::find(devices, device) - devices.begin());
}

std::vector<size_t> ReturnOrder(const FaultConfig& config, size_t count) {
  std::vector<size_t> order(count);
  std::iota(order.begin(), order.end(), size_t{0});
  if (config.order == NodeOrder::kReverse) std::ranges::reverse(order);
  if (config.order == NodeOrder::kShuffle) {
    std::mt19937_64 random(config.seed);
    for (size_t left = count; left > 1; --left) std::swap(order[left - 1], order[random() % left]);
  }
  return order;
}

/// The nodes leave at once, last one first, and return one by one.
Steps Restart(const FaultConfig& config, const Devices& devices) {
  Steps steps;
  for (size_t left = devices.size(); left > 0; --left) steps.push_back({0, kImpair, left - 1});
  steps.push_back({0, kReset});
  double at = config.gap;
  for (const size_t device : ReturnOrder(config, devices.size())) {
    const bool stays_away = devices[device] == config.missing;
    if (!stays_away || config.missing_for) {
      steps.push_back({Ns(at + (stays_away ? *config.missing_for : 0)), kRepair, device});
    }
    at += config.spacing;
  }
  return steps;
}

Steps Flap(const FaultConfig& config, const Devices& devices) {
  const size_t device = IndexOf(config.device, devices);
  Steps steps;
  for (uint32_t i = 0; i < config.times; ++i) {
    steps.push_back({Ns(2 * i * config.gap), kImpair, device});
    steps.push_back({Ns((2 * i + 1) * config.gap), kRepair, device});
  }
  return steps;
}

template <Impairment impairment>
Steps Impair(const FaultConfig& config, const Devices& devices) {
  const size_t device = IndexOf(config.device, devices);
  Steps steps = {{0, kImpair, device, impairment}};
  if (config.seconds) steps.push_back({Ns(*config.seconds), kRepair, device, impairment});
  return steps;
}

struct Row {
  FaultKind kind;
  Steps (*steps)(const FaultConfig&, const Devices&);
};
constexpr Row kRows[] = {
    {FaultKind::kRestart, Restart},
    {FaultKind::kFlap, Flap},
    {FaultKind::kNodeGone, Impair<Impairment::kRemoved>},
    {FaultKind::kTapoutHangup, Impair<Impairment::kClosed>},
    {FaultKind::kTapoutError, Impair<Impairment::kUnreadable>},
    {FaultKind::kInjectStall, Impair<Impairment::kStalled>},
    {FaultKind::kInjectRefuse, Impair<Impairment::kClosed>},
};

}  // namespace

std::vector<FaultStep> MakeScript(const FaultConfig& config, const Devices& devices) {
  const auto* row = std::ranges::find(kRows, config.kind, &Row::kind);
  if (row == std::end(kRows)) return {};
  Steps steps = row->steps(config, devices);
  std::ranges::stable_sort(steps, {}, &FaultStep::at_ns);
  return steps;
}

}  // namespace kvox::sim
