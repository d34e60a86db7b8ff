#include "sim/faults/reply_faults.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "kvox/common/control_records.h"

namespace kvox::sim {
namespace {

/// No command has an opcode with this bit.
constexpr uint16_t kWrongOpcode = 0x100;

/// Half of the record; its size field says so unless the record is torn.
void Shorten(std::vector<std::byte>& bytes, bool torn) {
  const size_t size = std::max(sizeof(CMD_HDR), bytes.size() / 2);
  bytes.resize(size);
  const auto field = static_cast<uint16_t>(size);
  if (!torn) std::memcpy(&bytes[offsetof(CMD_HDR, size)], &field, sizeof field);
}

void ChangeOpcode(std::vector<std::byte>& bytes) {
  uint16_t opcode = 0;
  std::memcpy(&opcode, &bytes[offsetof(CMD_HDR, opcode)], sizeof opcode);
  opcode ^= kWrongOpcode;
  std::memcpy(&bytes[offsetof(CMD_HDR, opcode)], &opcode, sizeof opcode);
}

}  // namespace

std::vector<Reply> CorruptReply(std::span<const FaultConfig> faults,
                                std::span<const std::byte> reply, std::span<const std::byte> last) {
  Reply changed{0, {reply.begin(), reply.end()}};
  bool stale = false;
  bool lost = false;
  for (const FaultConfig& fault : faults) {
    if (fault.kind == FaultKind::kReplyShort) Shorten(changed.bytes, fault.torn);
    if (fault.kind == FaultKind::kReplyOpcode) ChangeOpcode(changed.bytes);
    stale |= fault.kind == FaultKind::kReplyStale;
    lost |= fault.kind == FaultKind::kReplyLost || fault.replace;
    changed.delay_ns += static_cast<uint64_t>(fault.delay * 1e9);
  }
  std::vector<Reply> replies;
  if (stale) replies.push_back({0, {last.begin(), last.end()}});
  if (!lost) replies.push_back(std::move(changed));
  return replies;
}

}  // namespace kvox::sim
