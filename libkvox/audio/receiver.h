// Receives audio at a point, block by block.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kvox/common/sound_format.h"
#include "libkvox/calls/daemon.h"

namespace kvox::client {

/// Why frames are missing.
struct GapCause {
  std::string word = {};      // for programs: as in the list of docs/json.md; "" when unknown
  std::string text = {};      // for people: "the co-processor skipped packets"
  std::string evidence = {};  // in words
};

struct Block {
  std::vector<std::byte> data = {};  // whole frames, channels interleaved, little-endian
  SoundFormat format = {};
  uint64_t arrived_ns = 0;  // at the daemon, or here where that is not known; CLOCK_MONOTONIC_RAW
  std::optional<uint32_t> number = {};  // the packet's, where the flight log tells
  std::optional<uint64_t> stamp = {};   // the co-processor's, of the packet
  uint64_t missing = 0;                 // frames between the block before and this one
  bool estimated = false;               // `missing` is known from the clock alone
  GapCause cause = {};                  // of what is missing

  uint64_t frames() const { return data.size() / format.FrameSize(); }
};

struct ReceiverOptions {
  /// Wait for each block's packet in the flight log, for half a block or so. Without it there are
  /// no numbers, stamps and causes.
  bool numbers = true;
  /// Look up the causes of gaps in the flight log, which takes a millisecond or so for each.
  bool causes = true;
};

/// A point is a tap point ("imic.0", "2:imic.0"), a tap-out buffer ("tapout20"), or a processor: of
/// a relay, what its client gets; of another, what it reads. Where there is no relay, a temporary
/// one is made.
///
/// Up to 16 s of blocks are queued, so the caller may take its time; what does not fit is missing,
/// with a cause. When the daemon or the co-processor restarts, the blocks go on after a gap.
///
/// One thread at a time.
class Receiver {
 public:
  /// Throws Failure. The daemon outlives this object.
  Receiver(Daemon& daemon, const std::string& point, const ReceiverOptions& options = {});

  /// Leaves, if that has not been done.
  ~Receiver();
  Receiver(const Receiver&) = delete;
  Receiver& operator=(const Receiver&) = delete;

  /// The next block; none when none comes within `wait`. Throws Failure when the audio is over, see
  /// RelayClient::Tend(), once all blocks that came before have been returned.
  std::optional<Block> Next(std::chrono::milliseconds wait);

  /// Leaves, and takes down what was made; nobody else notices. Throws Failure when the daemon does
  /// not reply.
  void Leave();

  const std::string& point() const;

  /// Whether any audio has come.
  bool flows() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kvox::client
