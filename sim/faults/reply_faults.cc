#include "sim/faults/reply_faults.h"

#include <algorithm>
#include <cstring>

#include "kvox/common/control_records.h"

namespace kvox::sim {
namespace {

/// No command has an opcode with this bit.
constexpr uint16_t kWrongOpcode = 0x100;

/// Half of the record, whole by its own size field unless it is torn.
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

std::vector<Reply> SpoilReply(std::span<const FaultSpec> struck, std::span<const std::byte> reply,
                              std::span<const std::byte> last) {
  const std::vector<std::byte> before(last.begin(), last.end());
  Reply right{0, {reply.begin(), reply.end()}};
  bool stale = false;
  bool gone = false;
  for (const FaultSpec& fault : struck) {
    if (fault.kind == FaultKind::kReplyShort) Shorten(right.bytes, fault.torn);
    if (fault.kind == FaultKind::kReplyOpcode) ChangeOpcode(right.bytes);
    if (fault.kind == FaultKind::kReplyStale) stale = true;
    gone |= fault.kind == FaultKind::kReplyLost || fault.replace;
    right.delay_ns += static_cast<uint64_t>(fault.delay * 1e9);
  }
  std::vector<Reply> replies;
  if (stale) replies.push_back({0, before});
  if (!gone) replies.push_back(std::move(right));
  return replies;
}

}  // namespace kvox::sim
