// Receives the audio of one point for all pages that watch it.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "client/audio/level_meter.h"
#include "kvox/common/mutex.h"
#include "libkvox/audio/receiver.h"

namespace kvox::web {

/// A block and where it is in the point's audio.
struct Heard {
  uint64_t sequence = 0;  // blocks since the watcher was made, from 1
  uint64_t position = 0;  // frames before it, with those that are missing
  std::shared_ptr<const client::Block> block = {};
};

/// The levels of a few hundredths of a second.
struct Levels {
  uint64_t sequence = 0;  // 0: there are none yet
  std::vector<client::Level> channels = {};
  uint64_t missing = 0;  // frames, since the watcher was made
  uint32_t sample_rate = 0;
};

/// Keeps the last seconds. Goes on after a restart of daemon and co-processor. Where there is no
/// audio yet it tries again each second; when somebody has ended it, it is over. Any thread.
class Watcher {
 public:
  /// `keep_s` is how much is kept.
  Watcher(client::Daemon& daemon, std::string point, double keep_s);

  /// Takes down what was made; takes up to two seconds.
  ~Watcher();
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;

  /// Lets it end soon.
  void End() { ending_ = true; }

  /// No more audio comes: somebody has switched the point off. Another watcher may switch it on.
  bool over() const { return over_; }

  const std::string& point() const { return point_; }

  /// The blocks after `sequence`, oldest first, of at most `bytes` together (one at least).
  std::vector<Heard> After(uint64_t sequence, size_t bytes) const;

  /// The last block's sequence; 0 before the first.
  uint64_t last() const;

  /// How many seconds of audio there are after the one of that sequence.
  uint64_t Behind(uint64_t sequence) const;

  Levels levels() const;

  /// Why there is no audio; "" while there is.
  std::string error() const;

 private:
  void Run();
  void Receive();
  static void MarkMissing(uint64_t before_ns, client::Block& block);
  void Add(client::Block block);
  void Fail(const std::string& error);

  client::Daemon& daemon_;
  const std::string point_;
  const double keep_s_;
  std::atomic<bool> ending_ = false;
  std::atomic<bool> over_ = false;
  client::LevelMeter meter_;  // the thread's
  uint64_t position_ = 0;     // likewise
  uint64_t missing_ = 0;
  uint64_t last_ns_ = 0;  // when the last block of the receiver before had come

  mutable Mutex mutex_;
  std::deque<Heard> heard_ GUARDED_BY(mutex_);
  uint64_t last_ GUARDED_BY(mutex_) = 0;
  Levels levels_ GUARDED_BY(mutex_);
  std::string error_ GUARDED_BY(mutex_);
  std::thread thread_;
};

}  // namespace kvox::web
