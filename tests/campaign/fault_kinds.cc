#include "tests/campaign/fault_kinds.h"

#include <fmt/format.h>

#include <algorithm>

#include "tests/campaign/streams.h"

namespace kvox::campaign {
namespace {

// How soon audio has to be exact, with the reason.
/// The daemon waits half a second for further nodes, then sets everything up again.
constexpr Ms kAfterNodes{1500};

/// No stream has to do with the commands whose replies are spoilt, but the two threads that serve
/// clients may both wait half a second for them, and clients of relays that send audio wait too.
constexpr Ms kAfterReplies{1000};
/// A spoilt packet may cost the next one, and a resynchronisation what has queued up.
constexpr Ms kAfterPackets{700};
/// The daemon looks at a hung-up or stalled device again with every packet.
constexpr Ms kAfterDevices{500};

Ms FromSeconds(double seconds) {
  return Ms(static_cast<int64_t>(seconds * 1000));
}

std::string DeviceOf(Dice& dice, const char* kind) {
  return fmt::format("{}{}", kind, dice.Pick(Streams()).buffer);
}

std::string AnyDevice(Dice& dice) {
  return DeviceOf(dice, dice.Roll(2) == 0 ? "tapout" : "inject");
}

/// Of a stream that always flows, so that the fault meets packets.
const Stream& SteadyStream(Dice& dice) {
  for (;;) {
    const Stream& stream = dice.Pick(Streams());
    if (stream.owner == Owner::kNobody || stream.owner == Owner::kSwitched) return stream;
  }
}

size_t NodeCount() {
  return 2 * Streams().size() + 2;
}

// Nodes.

Injection RestartWith(const std::string& keys, double seconds) {
  return {.words = {"restart " + keys}, .lasts = FromSeconds(seconds)};
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

/// Its nodes stay, with nobody behind them, until the next one replaces them one by one.
Injection SimulatorKilled(Dice& dice) {
  return {.words = {}, .lasts = Ms(0), .kills = true, .away = FromSeconds(dice.Seconds(0, 1))};
}

// Replies. Clients give commands all the time, so the next ones are met.

constexpr Ms kCommandsSoon{2000};

Injection SpoilReplies(Dice& dice, const std::string& words) {
  return {{fmt::format("{} count={}", words, 1 + dice.Roll(3))}, Ms(0)};
}

/// The last late reply is on its way when the fault has struck for the last time.
Injection ReplyLate(Dice& dice) {
  const double delay = dice.Seconds(0.05, 1.2);
  Injection injection = SpoilReplies(dice, fmt::format("reply-late delay={:.3f}", delay));
  injection.lasts = kCommandsSoon + FromSeconds(delay);
  return injection;
}

Injection ReplyStale(Dice& dice) {
  return SpoilReplies(dice, dice.Roll(2) == 0 ? "reply-stale" : "reply-stale replace=true");
}

Injection ReplyShort(Dice& dice) {
  return SpoilReplies(dice, dice.Roll(2) == 0 ? "reply-short" : "reply-short torn=true");
}

// Packets, of one stream or of all.

Injection SpoilPackets(Dice& dice, const std::string& words, size_t most = 5) {
  std::string text = fmt::format("{} count={}", words, 1 + dice.Roll(most));
  if (dice.Roll(4) != 0) text += " tap=" + SteadyStream(dice).TapName();
  return {{text}, Ms(0)};
}

Injection PacketLate(Dice& dice) {
  return SpoilPackets(dice, fmt::format("packet-late delay={:.3f}", dice.Seconds(0.01, 0.2)));
}

Injection PacketBurst(Dice& dice) {
  return SpoilPackets(dice, fmt::format("packet-burst packets={}", 2 + dice.Roll(5)), 1);
}

/// Also such as are no multiple of the 8 bytes in which devices deliver.
Injection PacketJunk(Dice& dice) {
  return SpoilPackets(dice, fmt::format("packet-junk bytes={}", 1 + dice.Roll(4096)));
}

// Devices whose nodes stay.

/// A device that cannot be read is a node of another kind in the place of the right one, so that
/// nodes go and come then.
Injection SpoilDevice(Dice& dice, const char* kind, const char* direction) {
  const double seconds = dice.Seconds(0.05, 2);
  return {{fmt::format("{} device={}{} for={:.3f}", kind, direction, SteadyStream(dice).buffer,
                       seconds)},
          FromSeconds(seconds)};
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
    {"simulator-killed", FaultGroup::kNodes, kAfterNodes, 2, false, SimulatorKilled},
    {"reply-late", FaultGroup::kReplies, kAfterReplies, 3, false, ReplyLate},
    {"reply-lost", FaultGroup::kReplies, kAfterReplies, 2, false,
     [](Dice& dice) { return SpoilReplies(dice, "reply-lost"); }},
    {"reply-short", FaultGroup::kReplies, kAfterReplies, 2, false, ReplyShort},
    {"reply-opcode", FaultGroup::kReplies, kAfterReplies, 2, false,
     [](Dice& dice) { return SpoilReplies(dice, "reply-opcode"); }},
    {"reply-stale", FaultGroup::kReplies, kAfterReplies, 2, false, ReplyStale},
    {"reply-status", FaultGroup::kReplies, kAfterReplies, 2, false,
     [](Dice& dice) { return SpoilReplies(dice, "reply-status status=-5"); }},
    {"packet-early", FaultGroup::kPackets, kAfterPackets, 2, false,
     [](Dice& dice) { return SpoilPackets(dice, "packet-early"); }},
    {"packet-late", FaultGroup::kPackets, kAfterPackets, 2, false, PacketLate},
    {"packet-burst", FaultGroup::kPackets, kAfterPackets, 2, false, PacketBurst},
    {"packet-drop", FaultGroup::kPackets, kAfterPackets, 2, false,
     [](Dice& dice) { return SpoilPackets(dice, "packet-drop"); }},
    {"packet-duplicate", FaultGroup::kPackets, kAfterPackets, 2, false,
     [](Dice& dice) { return SpoilPackets(dice, "packet-duplicate"); }},
    {"packet-cut", FaultGroup::kPackets, kAfterPackets, 2, false,
     [](Dice& dice) { return SpoilPackets(dice, "packet-cut"); }},
    {"packet-junk", FaultGroup::kPackets, kAfterPackets, 2, false, PacketJunk},
    {"packet-magic", FaultGroup::kPackets, kAfterPackets, 2, false,
     [](Dice& dice) { return SpoilPackets(dice, "packet-magic"); }},
    {"packet-version", FaultGroup::kPackets, kAfterPackets, 2, false,
     [](Dice& dice) { return SpoilPackets(dice, "packet-version"); }},
    {"packet-size", FaultGroup::kPackets, kAfterPackets, 2, false,
     [](Dice& dice) { return SpoilPackets(dice, "packet-size"); }},
    {"packet-number", FaultGroup::kPackets, kAfterPackets, 2, false,
     [](Dice& dice) { return SpoilPackets(dice, "packet-number"); }},
    {"packet-format", FaultGroup::kPackets, kAfterPackets, 2, false,
     [](Dice& dice) { return SpoilPackets(dice, "packet-format"); }},
    {"tapout-hangup", FaultGroup::kDevices, kAfterDevices, 2, false,
     [](Dice& dice) { return SpoilDevice(dice, "tapout-hangup", "tapout"); }},
    {"tapout-error", FaultGroup::kNodes, kAfterNodes, 2, false,
     [](Dice& dice) { return SpoilDevice(dice, "tapout-error", "tapout"); }},
    {"inject-stall", FaultGroup::kDevices, kAfterDevices, 2, false,
     [](Dice& dice) { return SpoilDevice(dice, "inject-stall", "inject"); }},
    {"inject-refuse", FaultGroup::kDevices, kAfterDevices, 2, false,
     [](Dice& dice) { return SpoilDevice(dice, "inject-refuse", "inject"); }},
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
