// Extracts from the daemon's log which packet losses have a cause, and whether a sanitizer has
// reported something.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>

#include "kvox/common/unique_fd.h"

namespace kvox::campaign {

/// Packets that did not come back, by cause.
struct Losses {
  uint64_t timing = 0;   // came too early or too late twice in a row, or queued up behind that
  uint64_t start = 0;    // queued up before the stream was first read
  uint64_t unknown = 0;  // gaps in the numbers with no cause before them
};

/// Reads the log line by line.
class LogAnalyzer {
 public:
  void Read(std::string_view line);

  /// Of a tap-out buffer, by its name.
  Losses LossesOf(const std::string& buffer) const;
  /// Blocks to which a relay's client replied too late, by the relay's name.
  uint64_t SlowBlocks(const std::string& relay) const;
  /// Steps of recoveries so far: tap points, processors and buffers that were set up again.
  uint64_t restored() const { return restored_; }
  /// Log lines that the daemon has dropped, whose contents are unknown.
  uint64_t lost_lines() const { return lost_lines_; }
  /// The first line of a sanitizer's report; empty when there is none.
  const std::string& report() const { return report_; }

 private:
  enum class Cause { kUnknown, kStart, kTiming };
  struct BufferState {
    Cause cause = Cause::kUnknown;  // of a gap that comes now
    Losses losses;
  };
  static void CountGap(BufferState& buffer, std::string_view numbers);

  std::map<std::string, BufferState, std::less<>> buffers_;
  std::map<std::string, uint64_t, std::less<>> slow_blocks_;
  uint64_t restored_ = 0;
  uint64_t lost_lines_ = 0;
  std::string report_;
};

/// Follows a log file that grows, and frees the disk space of what it has read, except for the last
/// part. One thread.
class LogFollower {
 public:
  explicit LogFollower(std::filesystem::path file) : file_(std::move(file)) {}

  /// Reads what was added since the last call.
  void Follow();
  const LogAnalyzer& log() const { return log_; }

 private:
  void FreeOldPart();

  const std::filesystem::path file_;
  UniqueFd fd_;
  int64_t offset_ = 0;
  int64_t freed_ = 0;
  std::string incomplete_;  // the line at the end
  LogAnalyzer log_;
};

}  // namespace kvox::campaign
