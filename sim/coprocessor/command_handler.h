// The co-processor's end of the control channel. The records are described in docs/protocol.md, the
// statuses in docs/simulator.md. One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <utility>

#include "kvox/common/control_records.h"
#include "sim/coprocessor/co_processor.h"
#include "sim/output.h"

namespace kvox::sim {

/// Commands by opcode and status; commands that do not exist are counted under opcode 0.
using CommandCounts = std::map<std::pair<uint16_t, int16_t>, uint64_t>;

/// "CMD_KVOX_TAP_ENABLE_ID"; "unknown" for unknown opcodes.
const char* OpcodeName(uint16_t opcode);

/// The header of a record, which is not aligned.
CMD_HDR CommandHeader(std::span<const std::byte> record);

class CommandHandler {
 public:
  /// Both outlive it.
  CommandHandler(CoProcessor& co_processor, Journal& journal)
      : co_processor_(co_processor), journal_(journal) {}

  /// Carries out a command (a whole CMD_HDR at least, as long as its size field says) and turns the
  /// record into the reply. With `refusal` it only replies with that status.
  void Handle(std::span<std::byte> record, std::optional<int16_t> refusal = std::nullopt);

  const CommandCounts& counts() const { return counts_; }

 private:
  CoProcessor& co_processor_;
  Journal& journal_;
  CommandCounts counts_;
};

}  // namespace kvox::sim
