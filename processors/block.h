// What passes between the I/O thread of a tap-out buffer and the processors that read it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "kvox/common/tap_format.h"

namespace kvox {

/// Waits on behalf of somebody who works on the I/O thread.
class RtWaiter {
 public:
  virtual ~RtWaiter() = default;
  /// RT: true when `fd` can be written (or read); false when the thread is needed elsewhere or
  /// `deadline_ns` of its clock has passed, whatever wakes the thread in between.
  virtual bool WaitWritable(int fd, uint64_t deadline_ns) = 0;
  virtual bool WaitReadable(int fd, uint64_t deadline_ns) = 0;
  /// RT: the packet clock.
  virtual uint64_t NowNs() = 0;
};

/// What a processor has prepared for its blocks. It travels to the I/O thread with the routes, so
/// it is replaced as a whole and lives until no block uses it.
class BlockState {
 public:
  virtual ~BlockState() = default;
};

/// One block of audio on its way through a processor.
struct Block {
  std::span<const std::byte> audio;
  KvoxTapFormat format;     // of the input buffer
  uint64_t arrived_ns;      // when its packet came, on the waiter's clock
  bool connected;           // to an output buffer, be it enabled or not
  const BlockState* state;  // what the processor's block_state() answered
  RtWaiter& waiter;
};

/// The block an inject buffer will send. Zero-filled the first time it is asked for, so that a
/// processor that leaves it alone costs nothing.
class OutputArea {
 public:
  explicit OutputArea(std::span<std::byte> area) : area_(area) {}

  /// RT: the area, silent where nobody has written yet.
  std::byte* Data();
  size_t size() const { return area_.size(); }

 private:
  std::span<std::byte> area_;
  bool zeroed_ = false;
};

/// How a block left a processor.
struct BlockResult {
  int32_t status = 0;            // 0, or the processor's error
  bool output_is_input = false;  // send the input as it came; the output area was not touched
};

}  // namespace kvox
