// Puts the blocks of one or several streams onto one time line, side by side: what is missing
// becomes silence of the right length, and is listed.
//
// Pure: no I/O. One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "libkvox/audio/receiver.h"

namespace kvox::client {

/// Silence that stands for audio that never came.
struct Gap {
  std::string point = {};
  uint64_t position = 0;  // frames from the begin
  uint64_t frames = 0;
  uint64_t blocks = 0;     // that should have come
  bool estimated = false;  // the length is known from the clock alone
  GapCause cause = {};
};

class Track {
 public:
  /// It begins when the last stream has begun. Streams that have no audio while others go on are
  /// silent after a minute.
  explicit Track(std::vector<std::string> points);

  /// Adds the next block of a stream. Throws Failure for one of another format than the block
  /// before it, or of another sample rate than the first of all.
  void Add(size_t stream, Block block);

  /// No more blocks of it come.
  void End(size_t stream);
  /// Those that have no block yet have none at all.
  void EndSilent();
  bool ended() const;  // all of them

  /// The format of what TakeFrames() returns: the streams' own, if they have the same, else one
  /// that holds each of their samples; all channels side by side. None until all streams have
  /// begun.
  std::optional<SoundFormat> format() const;

  /// Where the channels of a point's stream are in it, and how many they are; 0 before they are
  /// known.
  uint32_t ChannelOf(const std::string& point) const;
  uint32_t ChannelsOf(const std::string& point) const;

  /// Frames that are complete.
  uint64_t ready() const;

  /// Up to so many complete frames, in order.
  std::vector<std::byte> TakeFrames(uint64_t count);

  /// Those that begin before the frame; the last one is cut there.
  std::vector<Gap> GapsUntil(uint64_t frame) const;

  /// Blocks that have come, and that are missing.
  uint64_t blocks() const { return blocks_; }
  uint64_t missed_blocks() const;

 private:
  struct Piece {
    uint64_t frames = 0;
    std::vector<std::byte> data = {};  // empty for silence
    uint64_t used = 0;                 // frames of it that were taken
  };
  struct Stream {
    std::string point;
    std::optional<SoundFormat> format = {};
    std::deque<Piece> pieces = {};
    int64_t end = 0;      // frames from the begin of the track
    uint64_t behind = 0;  // frames that are left out when they come, to be in time
    uint64_t begin_ns = 0;
    std::optional<uint64_t> begin_stamp = {};
    double ns_per_stamp = 0;  // 0: the stamps are no clock
    uint64_t blocks = 0;
    bool ended = false;
  };

  void Begin(Stream& stream, const Block& block);
  void Align();
  void BeginAt(Stream& stream, int64_t frame);
  double BeginOf(const Stream& stream, const Stream& reference) const;
  static void Discard(Stream& stream);
  void Append(Stream& stream, uint64_t silence, std::vector<std::byte> data);
  void TakeFrom(Stream& stream, uint64_t frames, const SoundFormat& format, size_t channel,
                std::vector<std::byte>& out);

  std::vector<Stream> streams_;
  std::vector<Gap> gaps_;
  bool aligned_ = false;
  uint64_t taken_ = 0;  // frames
  uint64_t blocks_ = 0;
};

}  // namespace kvox::client
