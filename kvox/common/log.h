// The daemon's log: Android's log under the tag "kvox". A thread that must not wait for the log
// library sends its lines elsewhere for as long as it runs (ScopedThreadLog); tests read what the
// whole process logs (ScopedProcessLog).
#pragma once

namespace kvox {

enum class LogPriority : int { kInfo = 4, kWarning = 5, kError = 6 };

/// Longest line, its NUL included; longer ones are cut, as the log library would.
inline constexpr int kLogLineSize = 1024;

/// Takes finished lines. Any thread may call.
class LogTarget {
 public:
  virtual ~LogTarget() = default;
  virtual void Write(LogPriority priority, const char* tag, const char* line) = 0;

  /// Waits, a fifth of a second at most, until what was written so far is where it belongs.
  virtual void Flush() {}
};

/// The log library itself.
LogTarget& SystemLog();

[[gnu::format(printf, 1, 2)]] void LogInfo(const char* format, ...);
[[gnu::format(printf, 1, 2)]] void LogWarning(const char* format, ...);
[[gnu::format(printf, 1, 2)]] void LogError(const char* format, ...);
[[gnu::format(printf, 3, 4)]] void LogTagged(LogPriority priority, const char* tag,
                                             const char* format, ...);

/// Sends the calling thread's lines to `target`, which outlives this object.
class ScopedThreadLog {
 public:
  explicit ScopedThreadLog(LogTarget& target);
  ~ScopedThreadLog();
  ScopedThreadLog(const ScopedThreadLog&) = delete;
  ScopedThreadLog& operator=(const ScopedThreadLog&) = delete;

 private:
  LogTarget* previous_;
};

/// Sends the lines of every thread without a target of its own to `target`. One at a time.
class ScopedProcessLog {
 public:
  explicit ScopedProcessLog(LogTarget& target);
  ~ScopedProcessLog();
  ScopedProcessLog(const ScopedProcessLog&) = delete;
  ScopedProcessLog& operator=(const ScopedProcessLog&) = delete;
};

}  // namespace kvox
