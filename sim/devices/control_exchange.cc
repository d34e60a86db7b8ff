#include "sim/devices/control_exchange.h"

#include <algorithm>
#include <cstring>

namespace kvox::sim {

std::vector<Reply> ControlExchange::Take(std::span<std::byte> record, uint64_t now_ns) {
  CMD_HDR header;
  std::memcpy(&header, record.data(), sizeof header);
  const auto struck = plan_.OnCommand(header.opcode, last_.empty(), now_ns);
  const auto refusal = std::ranges::find(struck, FaultKind::kReplyStatus, &FaultSpec::kind);
  if (refusal == struck.end()) {
    control_.Answer(record);
  } else {
    control_.Refuse(record, refusal->status);
  }
  auto replies = SpoilReply(struck, record, last_);
  last_.assign(record.begin(), record.end());
  return replies;
}

}  // namespace kvox::sim
