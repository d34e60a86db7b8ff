#include "sim/faults/fault_script.h"

#include <algorithm>
#include <iterator>
#include <numeric>
#include <random>

namespace kvox::sim {
namespace {

using enum FaultStep::Action;

uint64_t Ns(double seconds) {
  return static_cast<uint64_t>(seconds * 1e9);
}

size_t IndexOf(const std::string& device, const std::vector<std::string>& devices) {
  return static_cast<size_t>(std::ranges::find(devices, device) - devices.begin());
}

std::vector<size_t> ReturnOrder(const FaultSpec& spec, size_t count) {
  std::vector<size_t> order(count);
  std::iota(order.begin(), order.end(), size_t{0});
  if (spec.order == NodeOrder::kReverse) std::ranges::reverse(order);
  if (spec.order == NodeOrder::kShuffle) {
    std::mt19937_64 random(spec.seed);
    for (size_t left = count; left > 1; --left) std::swap(order[left - 1], order[random() % left]);
  }
  return order;
}

/// The nodes go at once, against the order in which they came, and come one by one.
std::vector<FaultStep> Restart(const FaultSpec& spec, const std::vector<std::string>& devices) {
  std::vector<FaultStep> steps;
  for (size_t left = devices.size(); left > 0; --left) steps.push_back({0, kHold, left - 1});
  steps.push_back({0, kReset});
  double at = spec.gap;
  for (const size_t device : ReturnOrder(spec, devices.size())) {
    const bool stays_away = devices[device] == spec.missing;
    if (!stays_away || spec.missing_for) {
      steps.push_back({Ns(at + (stays_away ? *spec.missing_for : 0)), kRelease, device});
    }
    at += spec.spacing;
  }
  return steps;
}

std::vector<FaultStep> Flap(const FaultSpec& spec, const std::vector<std::string>& devices) {
  const size_t device = IndexOf(spec.device, devices);
  std::vector<FaultStep> steps;
  for (uint32_t i = 0; i < spec.times; ++i) {
    steps.push_back({Ns(2 * i * spec.gap), kHold, device});
    steps.push_back({Ns((2 * i + 1) * spec.gap), kRelease, device});
  }
  return steps;
}

template <DeviceHold hold>
std::vector<FaultStep> Hold(const FaultSpec& spec, const std::vector<std::string>& devices) {
  const size_t device = IndexOf(spec.device, devices);
  std::vector<FaultStep> steps = {{0, kHold, device, hold}};
  if (spec.seconds) steps.push_back({Ns(*spec.seconds), kRelease, device, hold});
  return steps;
}

struct Row {
  FaultKind kind;
  std::vector<FaultStep> (*steps)(const FaultSpec&, const std::vector<std::string>&);
};
constexpr Row kRows[] = {
    {FaultKind::kRestart, Restart},
    {FaultKind::kFlap, Flap},
    {FaultKind::kNodeGone, Hold<DeviceHold::kAway>},
    {FaultKind::kTapoutHangup, Hold<DeviceHold::kClosed>},
    {FaultKind::kTapoutError, Hold<DeviceHold::kBroken>},
    {FaultKind::kInjectStall, Hold<DeviceHold::kStalled>},
    {FaultKind::kInjectRefuse, Hold<DeviceHold::kClosed>},
};

}  // namespace

std::vector<FaultStep> MakeScript(const FaultSpec& spec, const std::vector<std::string>& devices) {
  const auto* row = std::ranges::find(kRows, spec.kind, &Row::kind);
  if (row == std::end(kRows)) return {};
  std::vector<FaultStep> steps = row->steps(spec, devices);
  std::ranges::stable_sort(steps, {}, &FaultStep::at_ns);
  return steps;
}

}  // namespace kvox::sim
