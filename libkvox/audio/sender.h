// Sends audio to a point, block by block, at the pace of its stream.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "kvox/common/sound_format.h"
#include "libkvox/calls/daemon.h"

namespace kvox::client {

/// What the point takes.
struct SendFormat {
  SoundFormat format;
  size_t block_frames = 0;
};

struct SendCounts {
  uint64_t blocks = 0;  // sent
  uint64_t missed = 0;  // that the stream asked for while none was queued, or too late
};

/// A point is a tap point, an inject buffer that a tap point plays, or a relay. Where there is no
/// relay, a temporary one is made. The stream of the tap point sets the pace: a block goes out with
/// each of its blocks.
///
/// One thread at a time.
class Sender {
 public:
  /// Throws Failure. The daemon outlives this object.
  Sender(Daemon& daemon, const std::string& point);

  /// Leaves, if that has not been done.
  ~Sender();
  Sender(const Sender&) = delete;
  Sender& operator=(const Sender&) = delete;

  /// The format, once the stream's first block has come. False when none has come within `wait`.
  /// Throws Failure when the audio is over, see RelayClient::Tend().
  bool WaitForFormat(std::chrono::milliseconds wait, SendFormat& format);

  /// Queues one block: exactly block_frames frames of the format. False when the queue of 16 blocks
  /// has had no room within `wait`. Throws Failure as WaitForFormat() does, and kRefused when the
  /// relay does not take the audio any more.
  bool Send(std::span<const std::byte> block, std::chrono::milliseconds wait);

  /// Nothing follows: what the stream asks for from now on is not missed. True when all that is
  /// queued has been sent. Throws Failure as Send() does.
  bool Drain(std::chrono::milliseconds wait);

  /// Leaves at once, without what is still queued, and takes down what was made. Throws Failure
  /// when the daemon does not reply.
  void Leave();

  const std::string& point() const;
  SendCounts counts() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kvox::client
