// The RX format of a tap-out buffer: set by commands, and by the I/O thread from the packets it
// sees. The latest one counts.
#pragma once

#include <cstdint>

#include "kvox/common/mutex.h"
#include "kvox/common/tap_format.h"

namespace kvox {

/// Any thread. The lock is held only to copy a few bytes; the I/O thread takes it when the format
/// of its stream changes, not for every packet.
class RxFormatCell {
 public:
  struct Value {
    KvoxTapFormat format;
    uint32_t serial;  // counts what commands have set
  };

  void Set(const KvoxTapFormat& format) {
    MutexLock lock(mutex_);
    value_.format = format;
    ++value_.serial;
  }

  /// The stream's format, unless a command has set another that the I/O thread has not seen yet.
  void Adopt(const KvoxTapFormat& format, uint32_t seen_serial) {
    MutexLock lock(mutex_);
    if (value_.serial == seen_serial) value_.format = format;
  }

  Value Get() const {
    MutexLock lock(mutex_);
    return value_;
  }

 private:
  mutable Mutex mutex_;  // a leaf lock
  Value value_ GUARDED_BY(mutex_) = {};
};

}  // namespace kvox
