// A command to the co-processor in words, for the flight log.
#pragma once

#include <cstdint>
#include <string>

#include "kvox/common/control_records.h"

namespace kvox {

struct CommandText {
  /// `record` is the one that the opcode has.
  CommandText(uint16_t opcode, const CMD_HDR& record);

  std::string tap;     // "imic.0"
  std::string action;  // "bind tapout20 inject20"
};

}  // namespace kvox
