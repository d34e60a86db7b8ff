#include "bench/campaign/fault_kinds.h"

#include <fmt/format.h>

#include <algorithm>

#include "bench/campaign/streams.h"

namespace kvox::campaign {
namespace {

// How soon audio has to be exact, with the reason.
/// The daemon waits half a second for further nodes, then sets everything up again.
constexpr Ms kAfterNodes{1500};

Ms FromSeconds(double seconds) {
  return Ms(static_cast<int64_t>(seconds * 1000));
}

std::string DeviceOf(Dice& dice, const char* kind) {
  return fmt::format("{}{}", kind, dice.Pick(Streams()).buffer);
}

std::string AnyDevice(Dice& dice) {
  return DeviceOf(dice, dice.Roll(2) == 0 ? "tapout" : "inject");
}

size_t NodeCount() {
  return 2 * Streams().size() + 2;
}

// Nodes.

Injection RestartWith(const std::string& keys, double seconds) {
  return {{"restart " + keys}, FromSeconds(seconds)};
}

Injection Restart(Dice& dice, const char* order, double least_spacing, double most_spacing) {
  const double gap = dice.Seconds(0, 1);
  const double spacing = dice.Seconds(least_spacing, most_spacing);
  return RestartWith(fmt::format("gap={:.3f} order={} spacing={:.3f}", gap, order, spacing),
                     gap + spacing * static_cast<double>(NodeCount()));
}

Injection RestartWithoutOne(Dice& dice) {
  const double gap = dice.Seconds(0, 1);
  const double missing = dice.Seconds(0.2, 3);
  return RestartWith(
      fmt::format("gap={:.3f} missing={} missing_for={:.3f}", gap, AnyDevice(dice), missing),
      gap + missing);
}

/// Several nodes go at once and come back with seconds in between, also the control device.
Injection NodesOneByOne(Dice& dice) {
  Injection injection;
  double away = 0;
  std::vector<std::string> devices = {"control", AnyDevice(dice), AnyDevice(dice), AnyDevice(dice)};
  std::swap(devices[0], devices[dice.Roll(devices.size())]);
  for (const std::string& device : devices) {
    away += dice.Seconds(1, 3);
    injection.words.push_back(fmt::format("node-gone device={} for={:.3f}", device, away));
  }
  injection.lasts = FromSeconds(away);
  return injection;
}

Injection NodeGone(Dice& dice, const std::string& device) {
  const double away = dice.Seconds(0.05, 2);
  return {{fmt::format("node-gone device={} for={:.3f}", device, away)}, FromSeconds(away)};
}

Injection Flap(Dice& dice) {
  const size_t times = 1 + dice.Roll(20);
  const double gap = dice.Seconds(0.005, 0.1);
  const std::string device = dice.Roll(4) == 0 ? "control" : AnyDevice(dice);
  return {{fmt::format("flap device={} times={} gap={:.3f}", device, times, gap)},
          FromSeconds(2 * gap * static_cast<double>(times))};
}

constexpr FaultKind kKinds[] = {
    {"restart", FaultGroup::kNodes, kAfterNodes, 6, false,
     [](Dice& dice) { return Restart(dice, "usual", 0, 0); }},
    {"restart-reverse", FaultGroup::kNodes, kAfterNodes, 3, false,
     [](Dice& dice) { return Restart(dice, "reverse", 0, 0.02); }},
    {"restart-shuffled", FaultGroup::kNodes, kAfterNodes, 3, false,
     [](Dice& dice) { return Restart(dice, "shuffle", 0, 0.05); }},
    {"restart-slow", FaultGroup::kNodes, kAfterNodes, 2, true,
     [](Dice& dice) { return Restart(dice, "shuffle", 0.05, 0.3); }},
    {"restart-one-by-one", FaultGroup::kNodes, kAfterNodes, 0, true,
     [](Dice& dice) { return Restart(dice, "shuffle", 1, 1.5); }},
    {"restart-missing", FaultGroup::kNodes, kAfterNodes, 3, false, RestartWithoutOne},
    {"nodes-one-by-one", FaultGroup::kNodes, kAfterNodes, 1, true, NodesOneByOne},
    {"flap", FaultGroup::kNodes, kAfterNodes, 4, false, Flap},
    {"tapout-gone", FaultGroup::kNodes, kAfterNodes, 3, false,
     [](Dice& dice) { return NodeGone(dice, DeviceOf(dice, "tapout")); }},
    {"inject-gone", FaultGroup::kNodes, kAfterNodes, 3, false,
     [](Dice& dice) { return NodeGone(dice, DeviceOf(dice, "inject")); }},
    {"control-gone", FaultGroup::kNodes, kAfterNodes, 3, false,
     [](Dice& dice) { return NodeGone(dice, "control"); }},
};

}  // namespace

std::span<const FaultKind> FaultKinds() {
  return kKinds;
}

const FaultKind* FindFaultKind(const std::string& name) {
  const auto found = std::find_if(std::begin(kKinds), std::end(kKinds),
                                  [&](auto& kind) { return kind.name == name; });
  return found == std::end(kKinds) ? nullptr : &*found;
}

}  // namespace kvox::campaign
