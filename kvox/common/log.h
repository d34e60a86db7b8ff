// The daemon's log: Android's log under the tag "kvox". A thread that must not wait for the log
// library redirects its lines (ScopedThreadLog); tests redirect those of the whole process
// (ScopedProcessLog).
#pragma once

namespace kvox {

enum class LogPriority : int { kInfo = 4, kWarning = 5, kError = 6 };

/// Longest line including its NUL; longer ones are truncated, as by the log library.
inline constexpr int kLogLineSize = 1024;

/// Takes finished lines. Any thread may call.
class LogTarget {
 public:
  virtual ~LogTarget() = default;
  virtual void Write(LogPriority priority, const char* tag, const char* line) = 0;

  /// Waits until all lines so far are in the log, 200 ms at most.
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

/// Sends the lines of every thread without its own target to `target`. One at a time.
class ScopedProcessLog {
 public:
  explicit ScopedProcessLog(LogTarget& target);
  ~ScopedProcessLog();
  ScopedProcessLog(const ScopedProcessLog&) = delete;
  ScopedProcessLog& operator=(const ScopedProcessLog&) = delete;
};

}  // namespace kvox
