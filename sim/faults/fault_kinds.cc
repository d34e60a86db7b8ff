#include <algorithm>
#include <array>

#include "kvox/common/kvox_packet.h"
#include "sim/faults/fault.h"

namespace kvox::sim {
namespace {

using enum FaultKind;
using enum FaultGroup;

constexpr FaultDefaults Delay(double seconds) {
  return {.delay = seconds};
}
constexpr FaultDefaults Packets(uint32_t packets) {
  return {.packets = packets};
}
constexpr FaultDefaults Bytes(uint32_t bytes) {
  return {.bytes = bytes};
}

constexpr std::array<FaultKindRow, kFaultKinds> kRows{{
    {kRestart, "restart", kNodes, "gap order spacing missing missing_for",
     "All nodes disappear at once and return: gap, order, spacing, missing, missing_for"},
    {kFlap, "flap", kNodes, "device times gap",
     "A node disappears and returns: device, times, gap"},
    {kNodeGone, "node-gone", kNodes, "device for", "A node is away: device, for"},
    {kReplyLate, "reply-late", kReplies, "delay", "Comes late: delay", Delay(0.6)},
    {kReplyLost, "reply-lost", kReplies, "", "Does not come; the command is carried out"},
    {kReplyShort, "reply-short", kReplies, "torn", "Half of the record comes: torn"},
    {kReplyOpcode, "reply-opcode", kReplies, "", "Has an opcode that no command has"},
    {kReplyStale, "reply-stale", kReplies, "replace",
     "The last correct reply comes once more before it: replace"},
    {kReplyStatus, "reply-status", kReplies, "status", "The command is refused: status"},
    {kPacketEarly, "packet-early", kPackets, "", "Is sent with the packet before it"},
    {kPacketLate, "packet-late", kPackets, "delay", "Is sent late: delay", Delay(0.02)},
    {kPacketBurst, "packet-burst", kPackets, "burst",
     "Packets are held back and sent at once: packets", Packets(8)},
    {kPacketDrop, "packet-drop", kPackets, "", "Is not sent"},
    {kPacketDuplicate, "packet-duplicate", kPackets, "", "Is sent twice"},
    {kPacketCut, "packet-cut", kPackets, "", "Only its first half is sent"},
    {kPacketJunk, "packet-junk", kPackets, "bytes", "Junk is sent before it: bytes", Bytes(100)},
    {kPacketMagic, "packet-magic", kPackets, "", "The magic word of its header is wrong"},
    {kPacketVersion, "packet-version", kPackets, "", "The version in its header is wrong"},
    {kPacketSize, "packet-size", kPackets, "bytes", "The size in its header is wrong: bytes",
     Bytes(kPacketMaxPayload + 4)},
    {kPacketNumber, "packet-number", kPackets, "jump",
     "Its number is higher than it should be: packets", Packets(1000)},
    {kPacketFormat, "packet-format", kPackets, "channels",
     "It has another number of channels: channels"},
    {kTapoutHangup, "tapout-hangup", kDevices, "tapout", "The reader sees a hang-up: device"},
    {kTapoutError, "tapout-error", kDevices, "tapout", "The node cannot be read: device"},
    {kInjectStall, "inject-stall", kDevices, "inject",
     "Nobody reads the device, and it fills up: device"},
    {kInjectRefuse, "inject-refuse", kDevices, "inject", "The device has no reader: device"},
}};

static_assert(kRows.back().name != nullptr, "a row for every kind");

}  // namespace

std::span<const FaultKindRow, kFaultKinds> FaultKinds() {
  return kRows;
}

const FaultKindRow& RowOf(FaultKind kind) {
  return *std::ranges::find(kRows, kind, &FaultKindRow::kind);
}

}  // namespace kvox::sim
