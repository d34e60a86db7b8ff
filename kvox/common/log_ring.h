// Log lines of threads that must never wait: they go into a bounded ring, from which one log thread
// writes them to the log library, which may block. Lines that find the ring full are lost, counted
// and reported in one line.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

#include "kvox/common/log.h"
#include "kvox/common/mutex.h"

namespace kvox {

/// Longer lines, NUL included, are truncated in the ring.
inline constexpr size_t kLogRingLineSize = 240;

/// Bounded queue of lines, many writers, one reader, without locks.
class LogRing {
 public:
  struct Line {
    LogPriority priority;
    std::array<char, 16> tag;
    std::array<char, kLogRingLineSize> text;
  };

  static constexpr uint32_t kCapacity = 512;

  LogRing();

  /// RT: puts a line in; false when the ring is full, which counts a loss. Any thread.
  bool Push(LogPriority priority, const char* tag, const char* text);

  /// How many lines were put in so far. Any thread.
  uint64_t pushed() const { return tail_.load(std::memory_order_relaxed); }

  /// Takes the oldest line out; false when there is none. One thread at a time.
  bool Pop(Line& line);

  /// Lines lost since the last call. Any thread.
  uint32_t TakeLosses();

 private:
  struct Slot {
    std::atomic<uint64_t> sequence;  // 2 * lap: free for that lap's writer; + 1: holds its line
    Line line;
  };

  const std::unique_ptr<std::array<Slot, kCapacity>> slots_;
  std::atomic<uint64_t> tail_ = 0;  // next to write
  uint64_t head_ = 0;               // next to read
  std::atomic<uint32_t> losses_ = 0;
};

/// A LogTarget for real-time threads: Write neither waits nor does I/O beyond waking the log
/// thread. Owns the log thread; the destructor drains the ring and joins it.
class DeferredLog : public LogTarget {
 public:
  explicit DeferredLog(LogTarget& destination);
  ~DeferredLog() override;

  /// RT. Any thread.
  void Write(LogPriority priority, const char* tag, const char* line) override;

  /// Not RT. The caller is synchronised with the writers, as after joining them.
  void Flush() override;

 private:
  void Run();
  void Drain();

  LogTarget& destination_;
  LogRing ring_;
  std::atomic<uint32_t> wakeups_ = 0;
  std::atomic<bool> stopping_ = false;
  Mutex drained_mutex_;  // a leaf lock; never taken by Write
  CondVar drained_changed_;
  uint64_t drained_ GUARDED_BY(drained_mutex_) = 0;  // lines since the beginning
  std::thread thread_;
};

}  // namespace kvox
