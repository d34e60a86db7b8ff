#include <array>

#include "kvox/common/kvox_packet.h"
#include "sim/fault.h"

namespace kvox::sim {
namespace {

using enum FaultKind;
using enum FaultGroup;

constexpr std::array<FaultKindRow, kFaultKinds> kRows{{
    {kRestart, "restart", kNodes, "gap order spacing missing missing_for"},
    {kFlap, "flap", kNodes, "device times gap"},
    {kNodeGone, "node-gone", kNodes, "device for"},
    {kReplyLate, "reply-late", kReplies, "delay", {.delay = 0.6}},
    {kReplyLost, "reply-lost", kReplies, ""},
    {kReplyShort, "reply-short", kReplies, "torn"},
    {kReplyOpcode, "reply-opcode", kReplies, ""},
    {kReplyStale, "reply-stale", kReplies, "replace"},
    {kReplyStatus, "reply-status", kReplies, "status"},
    {kPacketEarly, "packet-early", kPackets, ""},
    {kPacketLate, "packet-late", kPackets, "delay", {.delay = 0.02}},
    {kPacketBurst, "packet-burst", kPackets, "burst", {.packets = 8}},
    {kPacketDrop, "packet-drop", kPackets, ""},
    {kPacketDuplicate, "packet-duplicate", kPackets, ""},
    {kPacketCut, "packet-cut", kPackets, ""},
    {kPacketJunk, "packet-junk", kPackets, "bytes", {.bytes = 100}},
    {kPacketMagic, "packet-magic", kPackets, ""},
    {kPacketVersion, "packet-version", kPackets, ""},
    {kPacketSize, "packet-size", kPackets, "bytes", {.bytes = kPacketMaxPayload + 4}},
    {kPacketNumber, "packet-number", kPackets, "jump", {.packets = 1000}},
    {kPacketFormat, "packet-format", kPackets, "channels"},
    {kTapoutHangup, "tapout-hangup", kDevices, "tapout"},
    {kTapoutError, "tapout-error", kDevices, "tapout"},
    {kInjectStall, "inject-stall", kDevices, "inject"},
    {kInjectRefuse, "inject-refuse", kDevices, "inject"},
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
