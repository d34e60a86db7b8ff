// What the daemon's log tells about packets: which losses have a reason, and whether a sanitizer
// had something to say.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <string_view>

namespace kvox::campaign {

/// Packets that did not come back, by reason.
struct Losses {
  uint64_t timing = 0;      // came too early or too late twice in a row, or queued up behind that
  uint64_t start = 0;       // queued up before the stream was first read
  uint64_t unreasoned = 0;  // gaps in the numbers without any of these
};

/// Reads the log's lines one by one. Pure.
class LogLedger {
 public:
  void Read(std::string_view line);

  /// Of a tap-out buffer, by its name.
  Losses LossesOf(const std::string& buffer) const;
  Losses Total() const;
  /// Blocks that a relay's client answered too late, by the relay's name.
  uint64_t SlowBlocks(const std::string& relay) const;
  /// Steps of recoveries so far: tap points, processors and buffers that were set up again.
  uint64_t restored() const { return restored_; }
  /// Lines that the daemon had no room for. What they told is not known here.
  uint64_t lost_lines() const { return lost_lines_; }
  /// The first line of a sanitizer's report; empty when there is none.
  const std::string& report() const { return report_; }

 private:
  enum class Why { kNothing, kStart, kTiming };
  struct Reader {
    Why why = Why::kNothing;  // a gap would be there now
    Losses losses;
  };
  void ReadPacketLine(Reader& reader, std::string_view rest);

  std::map<std::string, Reader, std::less<>> readers_;
  std::map<std::string, uint64_t, std::less<>> slow_;
  uint64_t restored_ = 0;
  uint64_t lost_lines_ = 0;
  std::string report_;
};

/// Follows a log file that grows. What it has read gives its disk space back, but for the end.
class LogReader {
 public:
  explicit LogReader(std::filesystem::path file) : file_(std::move(file)) {}
  ~LogReader();
  LogReader(const LogReader&) = delete;
  LogReader& operator=(const LogReader&) = delete;

  /// Reads what has come since the last call.
  void Follow();
  const LogLedger& ledger() const { return ledger_; }

 private:
  void FreeOldPart();

  const std::filesystem::path file_;
  int fd_ = -1;
  int64_t offset_ = 0;
  int64_t freed_ = 0;
  std::string rest_;  // of a line that is not whole yet
  LogLedger ledger_;
};

}  // namespace kvox::campaign
