// The interface between the I/O thread of a tap-out buffer and the processors that read it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "kvox/common/tap_format.h"

namespace kvox {

/// How a processor waits on the I/O thread. All RT.
class IoWaiter {
 public:
  virtual ~IoWaiter() = default;

  /// True when `fd` can be written (or read). False when the thread is needed elsewhere or the
  /// packet clock has passed `deadline_ns`.
  virtual bool WaitWritable(int fd, uint64_t deadline_ns) = 0;
  virtual bool WaitReadable(int fd, uint64_t deadline_ns) = 0;

  /// The packet clock.
  virtual uint64_t NowNs() = 0;
};

/// State that a kind of processor prepares for its blocks. It is replaced as a whole, reaches the
/// I/O thread with the routes and lives until no block uses it.
class BlockState {
 public:
  virtual ~BlockState() = default;
};

/// One block of audio on its way through a processor. Times are those of the packet clock.
struct Block {
  std::span<const std::byte> audio;
  KvoxTapFormat format;     // of the input buffer
  uint64_t arrived_ns;      // when its packet came
  uint64_t begin_ns;        // when its processing begins
  bool connected;           // to an inject buffer, enabled or not
  const BlockState* state;  // what the processor's block_state() returned
  IoWaiter& waiter;
};

/// The block that an inject buffer will send. Zero-filled on first use, so a processor that does
/// not use it costs nothing.
class OutputArea {
 public:
  explicit OutputArea(std::span<std::byte> area) : area_(area) {}

  /// RT: the area, silent where nothing has been written yet.
  std::byte* Data();
  size_t size() const { return area_.size(); }

 private:
  std::span<std::byte> area_;
  bool zeroed_ = false;
};

/// What the processor's client did with a block.
enum class Delivery : uint8_t {
  kNone,  // there is no client
  kAccepted,
  kRefused,      // also by a client that has died
  kLate,         // no reply in time; a later one is ignored
  kBusy,         // still busy with an earlier block: this one was not delivered
  kInterrupted,  // the I/O thread was needed elsewhere
};

/// The result of processing a block.
struct BlockResult {
  int32_t status = 0;            // 0, or the processor's error
  bool output_is_input = false;  // send the input unchanged; the output area was not used
  Delivery delivery = Delivery::kNone;
  uint64_t client_ns = 0;  // from begin_ns until the client had done with the block
};

}  // namespace kvox
