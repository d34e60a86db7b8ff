#include "tests/campaign/fault_kinds.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "tests/campaign/client_part.h"
#include "tests/campaign/streams.h"

namespace kvox::campaign {
namespace {

Ms FromSeconds(double seconds) {
  return Ms(static_cast<int64_t>(seconds * 1000));
}

/// "tapout" for "tapout-gone": the device that a kind affects.
std::string Target(const std::string& kind) {
  return kind.substr(0, kind.find('-'));
}

std::string DeviceOf(RandomSource& random, const std::string& direction) {
  return fmt::format("{}{}", direction, random.Pick(Streams()).buffer);
}

std::string AnyDevice(RandomSource& random) {
  return DeviceOf(random, random.Below(2) == 0 ? "tapout" : "inject");
}

/// A stream that always flows, so that the fault hits packets.
const Stream& StaticStream(RandomSource& random) {
  for (;;) {
    const Stream& stream = random.Pick(Streams());
    if (stream.control == Control::kStatic) return stream;
  }
}

// Nodes.

Injection RestartWith(const std::string& options, double seconds) {
  return {{"restart " + options}, FromSeconds(seconds)};
}

Injection Restart(RandomSource& random, const char* order, double least_spacing,
                  double most_spacing) {
  const double gap = random.Seconds(0, 1);
  const double spacing = random.Seconds(least_spacing, most_spacing);
  const size_t nodes = Streams().size() + InjectNumbers().size() + 2;
  return RestartWith(fmt::format("gap={:.3f} order={} spacing={:.3f}", gap, order, spacing),
                     gap + spacing * static_cast<double>(nodes));
}

Injection RestartWithoutOne(RandomSource& random, const std::string&) {
  const double gap = random.Seconds(0, 1);
  const double missing = random.Seconds(0.2, 3);
  return RestartWith(
      fmt::format("gap={:.3f} missing={} missing_for={:.3f}", gap, AnyDevice(random), missing),
      gap + missing);
}

/// Several nodes, including the control device, leave at once and return seconds apart.
Injection NodesOneByOne(RandomSource& random, const std::string&) {
  Injection injection;
  double away = 0;
  std::vector<std::string> devices = {"control", AnyDevice(random), AnyDevice(random),
                                      AnyDevice(random)};
  std::swap(devices[0], devices[random.Below(devices.size())]);
  for (const std::string& device : devices) {
    away += random.Seconds(1, 3);
    injection.commands.push_back(fmt::format("node-gone device={} for={:.3f}", device, away));
  }
  injection.lasts = FromSeconds(away);
  return injection;
}

Injection NodeGone(RandomSource& random, const std::string& name) {
  const std::string target = Target(name);
  const std::string device = target == "control" ? target : DeviceOf(random, target);
  const double away = random.Seconds(0.05, 2);
  return {{fmt::format("node-gone device={} for={:.3f}", device, away)}, FromSeconds(away)};
}

Injection Flap(RandomSource& random, const std::string&) {
  const size_t times = 1 + random.Below(20);
  const double gap = random.Seconds(0.005, 0.1);
  const std::string device = random.Below(4) == 0 ? "control" : AnyDevice(random);
  return {{fmt::format("flap device={} times={} gap={:.3f}", device, times, gap)},
          FromSeconds(2 * gap * static_cast<double>(times))};
}

/// The nodes stay, but no process serves them until another simulator replaces them one by one.
Injection KillSimulator(RandomSource& random, const std::string&) {
  return {.commands = {}, .kills = true, .away = FromSeconds(random.Seconds(0, 1))};
}

/// It returns only when everything else has done so without it.
Injection NodeLost(RandomSource& random, const std::string&) {
  return {.commands = {"node-gone device=" + AnyDevice(random)}, .client = &ClientPart::LoseNode};
}

// A client's requests around a restart.

Injection AroundRestart(RandomSource& random, double least_gap,
                        void (ClientPart::*client)(const Injection&)) {
  const double gap = random.Seconds(least_gap, 1.5);
  Injection injection = RestartWith(fmt::format("gap={:.3f}", gap), gap);
  injection.client = client;
  injection.choice = random.Below(1000);
  return injection;
}

Injection WishesAway(RandomSource& random, const std::string&) {
  return AroundRestart(random, 0.5, &ClientPart::WishWhileAway);
}

Injection TakeOver(RandomSource& random, const std::string&) {
  return AroundRestart(random, 0, &ClientPart::TakeOverBuffer);
}

// Replies. Clients send commands all the time, so the next ones are hit.

constexpr Ms kCommandsSoon{2000};

Injection CorruptReplies(RandomSource& random, const std::string& fault) {
  return {{fmt::format("{} count={}", fault, 1 + random.Below(3))}, Ms(0)};
}

/// After the fault has struck for the last time, the last late reply is still to come.
Injection ReplyLate(RandomSource& random, const std::string& name) {
  const double delay = random.Seconds(0.05, 1.2);
  Injection injection = CorruptReplies(random, fmt::format("{} delay={:.3f}", name, delay));
  injection.lasts = kCommandsSoon + FromSeconds(delay);
  return injection;
}

/// In one of two variants.
Injection ReplyStale(RandomSource& random, const std::string& name) {
  return CorruptReplies(random, name + (random.Below(2) == 0 ? "" : " replace=true"));
}

Injection ReplyShort(RandomSource& random, const std::string& name) {
  return CorruptReplies(random, name + (random.Below(2) == 0 ? "" : " torn=true"));
}

Injection ReplyStatus(RandomSource& random, const std::string& name) {
  return CorruptReplies(random, name + " status=-5");
}

Injection ReplyMute(RandomSource& random, const std::string&) {
  const double seconds = random.Seconds(1, 3);
  return {.commands = {fmt::format("reply-lost for={:.3f}", seconds)},
          .lasts = FromSeconds(seconds),
          .client = &ClientPart::LookUpWhileMute};
}

Injection ConnectRefused(RandomSource& random, const std::string&) {
  return {.client = &ClientPart::RequestRefusedConnects, .choice = random.Below(1000)};
}

// Packets, of one stream or of all.

Injection CorruptSome(RandomSource& random, const std::string& fault, size_t most) {
  std::string text = fmt::format("{} count={}", fault, 1 + random.Below(most));
  if (random.Below(4) != 0) text += kOfTap + StaticStream(random).TapName();
  return {{text}, Ms(0)};
}

Injection CorruptPackets(RandomSource& random, const std::string& fault) {
  return CorruptSome(random, fault, 5);
}

Injection PacketLate(RandomSource& random, const std::string& name) {
  return CorruptPackets(random, fmt::format("{} delay={:.3f}", name, random.Seconds(0.01, 0.2)));
}

Injection PacketBurst(RandomSource& random, const std::string& name) {
  return CorruptSome(random, fmt::format("{} packets={}", name, 2 + random.Below(5)), 1);
}

/// Also sizes that are not a multiple of the 8 bytes in which devices deliver.
Injection PacketJunk(RandomSource& random, const std::string& name) {
  return CorruptPackets(random, fmt::format("{} bytes={}", name, 1 + random.Below(4096)));
}

// Devices whose nodes stay, except for a tap-out that cannot be read: it is replaced by a node of
// another kind, so nodes leave and arrive.

Injection CorruptDevice(RandomSource& random, const std::string& name) {
  const double seconds = random.Seconds(0.05, 2);
  return {{fmt::format("{} device={}{} for={:.3f}", name, Target(name), StaticStream(random).buffer,
                       seconds)},
          FromSeconds(seconds)};
}

/// Some of the inject buffers that get the same audio, not all.
Injection StallFanOuts(RandomSource& random, const std::string&) {
  const double seconds = random.Seconds(3, 5);
  const size_t first = random.Below(FanOuts().size());
  Injection injection{.lasts = FromSeconds(seconds), .client = &ClientPart::MeasureFanOuts};
  const size_t count = 1 + random.Below(FanOuts().size() - 1);
  for (size_t i = 0; i < count; ++i) {
    const int inject = FanOuts()[(first + i) % FanOuts().size()].inject;
    injection.commands.push_back(
        fmt::format("inject-stall device=inject{} for={:.3f}", inject, seconds));
  }
  return injection;
}

using enum FaultGroup;

constexpr FaultKind kKinds[] = {
    {"restart", kNodes, 6, false, [](auto& r, auto&) { return Restart(r, "usual", 0, 0); }},
    {"restart-reverse", kNodes, 3, false,
     [](auto& r, auto&) { return Restart(r, "reverse", 0, 0.02); }},
    {"restart-shuffled", kNodes, 3, false,
     [](auto& r, auto&) { return Restart(r, "shuffle", 0, 0.05); }},
    {"restart-slow", kNodes, 2, true,
     [](auto& r, auto&) { return Restart(r, "shuffle", 0.05, 0.3); }},
    {"restart-one-by-one", kNodes, 0, true,
     [](auto& r, auto&) { return Restart(r, "shuffle", 1, 1.5); }},
    {"restart-missing", kNodes, 3, false, RestartWithoutOne},
    {"nodes-one-by-one", kNodes, 1, true, NodesOneByOne},
    {"flap", kNodes, 4, false, Flap},
    {"tapout-gone", kNodes, 3, false, NodeGone},
    {"inject-gone", kNodes, 3, false, NodeGone},
    {"control-gone", kNodes, 3, false, NodeGone},
    {"simulator-killed", kNodes, 2, false, KillSimulator},
    {"node-lost", kNodes, 2, false, NodeLost, true},
    {"wishes-away", kNodes, 3, false, WishesAway},
    {"takeover-restart", kNodes, 3, false, TakeOver},
    {"reply-late", kReplies, 3, false, ReplyLate},
    {"reply-lost", kReplies, 2, false, CorruptReplies},
    {"reply-short", kReplies, 2, false, ReplyShort},
    {"reply-opcode", kReplies, 2, false, CorruptReplies},
    {"reply-stale", kReplies, 2, false, ReplyStale},
    {"reply-status", kReplies, 2, false, ReplyStatus},
    {"reply-mute", kReplies, 2, false, ReplyMute},
    {"connect-refused", kBystanders, 2, false, ConnectRefused},
    {"packet-early", kPackets, 2, false, CorruptPackets},
    {"packet-late", kPackets, 2, false, PacketLate},
    {"packet-burst", kPackets, 2, false, PacketBurst},
    {"packet-drop", kPackets, 2, false, CorruptPackets},
    {"packet-duplicate", kPackets, 2, false, CorruptPackets},
    {"packet-cut", kPackets, 2, false, CorruptPackets},
    {"packet-junk", kPackets, 2, false, PacketJunk},
    {"packet-magic", kPackets, 2, false, CorruptPackets},
    {"packet-version", kPackets, 2, false, CorruptPackets},
    {"packet-size", kPackets, 2, false, CorruptPackets},
    {"packet-number", kPackets, 2, false, CorruptPackets},
    {"packet-format", kPackets, 2, false, CorruptPackets},
    {"tapout-hangup", kDevices, 2, false, CorruptDevice},
    {"tapout-error", kNodes, 2, false, CorruptDevice},
    {"inject-stall", kDevices, 2, false, CorruptDevice},
    {"inject-refuse", kDevices, 2, false, CorruptDevice},
    {"fanout-stall", kBystanders, 3, false, StallFanOuts, true},
};

}  // namespace

Ms RecoveryLimitAfter(FaultGroup group) {
  switch (group) {
    case kNodes:
      // The daemon waits half a second for more nodes, then sets everything up again.
      return Ms(1500);
    case kReplies:
      // No stream depends on the commands whose replies are corrupted. But both threads that serve
      // clients may wait half a second for a reply, and then clients of relays that send audio
      // wait.
      return Ms(1000);
    case kPackets:
      // A corrupted packet may cost the next one, and a resynchronisation those that have queued
      // up.
      return Ms(700);
    case kDevices:
    case kBystanders:
      break;
  }
  // With every packet the daemon tries a hung-up or stalled device again.
  return Ms(500);
}

bool KeepsAudio(FaultGroup group) {
  return group == kReplies || group == kBystanders;
}

std::span<const FaultKind> FaultKinds() {
  return kKinds;
}

const FaultKind* FindFaultKind(const std::string& name) {
  const auto found = std::find_if(std::begin(kKinds), std::end(kKinds),
                                  [&](auto& kind) { return kind.name == name; });
  return found == std::end(kKinds) ? nullptr : &*found;
}

}  // namespace kvox::campaign
