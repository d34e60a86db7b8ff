#include <array>

#include "kvox/common/kvox_packet.h"
#include "sim/faults/fault.h"

namespace kvox::sim {
namespace {

using enum FaultKind;
using enum FaultGroup;

constexpr std::array<FaultKindRow, kFaultKinds> kRows{{
    {kRestart, "restart", kNodes, "gap order spacing missing missing_for",
     "All nodes go at once and return: gap, order, spacing, missing, missing_for"},
    {kFlap, "flap", kNodes, "device times gap", "A node goes and returns: device, times, gap"},
    {kNodeGone, "node-gone", kNodes, "device for", "A node is away: device, for"},
    {kReplyLate,
     "reply-late",
     kReplies,
     "delay",
     "Comes later than it should: delay",
     {.delay = 0.6}},
    {kReplyLost, "reply-lost", kReplies, "", "Does not come; the command is done"},
    {kReplyShort, "reply-short", kReplies, "torn", "Half of the record comes: torn"},
    {kReplyOpcode, "reply-opcode", kReplies, "", "Has an opcode that no command has"},
    {kReplyStale, "reply-stale", kReplies, "replace",
     "The last right reply comes before it once more: replace"},
    {kReplyStatus, "reply-status", kReplies, "status", "The command is refused: status"},
    {kPacketEarly, "packet-early", kPackets, "", "Goes with the packet before it"},
    {kPacketLate, "packet-late", kPackets, "delay", "Goes later: delay", {.delay = 0.02}},
    {kPacketBurst,
     "packet-burst",
     kPackets,
     "burst",
     "Packets are held back and go at once: packets",
     {.packets = 8}},
    {kPacketDrop, "packet-drop", kPackets, "", "Does not go"},
    {kPacketDuplicate, "packet-duplicate", kPackets, "", "Goes twice"},
    {kPacketCut, "packet-cut", kPackets, "", "Its first half goes"},
    {kPacketJunk, "packet-junk", kPackets, "bytes", "Junk goes before it: bytes", {.bytes = 100}},
    {kPacketMagic, "packet-magic", kPackets, "", "The magic word of its header is wrong"},
    {kPacketVersion, "packet-version", kPackets, "", "The version in its header is wrong"},
    {kPacketSize,
     "packet-size",
     kPackets,
     "bytes",
     "The size in its header is wrong: bytes",
     {.bytes = kPacketMaxPayload + 4}},
    {kPacketNumber,
     "packet-number",
     kPackets,
     "jump",
     "Its number is higher than it should be: packets",
     {.packets = 1000}},
    {kPacketFormat, "packet-format", kPackets, "channels",
     "It has another number of channels: channels"},
    {kTapoutHangup, "tapout-hangup", kDevices, "tapout",
     "The reader finds the device hung up: device"},
    {kTapoutError, "tapout-error", kDevices, "tapout", "The node cannot be read: device"},
    {kInjectStall, "inject-stall", kDevices, "inject",
     "Nobody reads the device, and it fills up: device"},
    {kInjectRefuse, "inject-refuse", kDevices, "inject", "The device has no reader: device"},
}};

constexpr bool InOrder() {
  for (size_t i = 0; i < kFaultKinds; ++i) {
    if (kRows[i].kind != static_cast<FaultKind>(i)) return false;
  }
  return true;
}
static_assert(InOrder(), "the table is in the order of the enumeration");

}  // namespace

std::span<const FaultKindRow, kFaultKinds> FaultKinds() {
  return kRows;
}

const FaultKindRow& RowOf(FaultKind kind) {
  return kRows[static_cast<size_t>(kind)];
}

}  // namespace kvox::sim
