// What the service needs from the daemon: commands to the co-processor and the wake lock.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kvox/common/control_records.h"

namespace kvox {

class CoprocessorLink {
 public:
  virtual ~CoprocessorLink() = default;

  /// Sends the record of `size` bytes and reads its reply into the same memory. Returns 0, the
  /// co-processor's non-zero status, -1 if it could not be sent or no reply came in time, or minus
  /// errno. Any thread; one command at a time, in the order of arrival.
  virtual int32_t SendKvoxCommand(uint16_t opcode, CMD_HDR* record, size_t size) = 0;

  /// Holds or drops the wake lock. Callers take turns.
  virtual void UpdateWakeLock(bool needed) = 0;
};

}  // namespace kvox
