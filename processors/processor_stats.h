// Timing statistics of one processor: for each block its period (start to start) and its active
// time (start to end of processing), in milliseconds.
//
// The I/O thread measures, service threads read and reset. One flag guards what they share; the I/O
// thread tries it once and otherwise does without the measurement, so a reader never delays audio.
#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <vector>

#include "kvox/common/mutex.h"

namespace kvox {

class KvoxProcessorStats {
 public:
  /// Monotonic time in nanoseconds.
  using Clock = int64_t (*)();

  static int64_t SteadyNow();

  explicit KvoxProcessorStats(Clock clock = SteadyNow) : clock_(clock) {}

  /// RT: a block begins. Answers the time it read.
  int64_t StartMeasurement();

  /// RT: the block's processing has ended. Logs a line about once a second of blocks.
  void StopMeasurement();

  // Service threads. Each waits at most 50 ms for the flag and answers false if it stays taken.

  /// Keeps the latest `entries` active times from now on; 0 keeps none.
  bool SetBufferSize(unsigned int entries);

  /// Average period, 0 when none was measured, and the active times kept, oldest first. Both begin
  /// anew afterwards.
  bool GetMeasurements(float& average_period, std::vector<float>& measurements);

  bool Reset();

  /// How many active times are kept at most.
  uint32_t buffer_size() const { return buffer_size_.load(std::memory_order_relaxed); }

 private:
  /// The flag. A reader may hold it while it copies a ring of any size, the I/O thread never waits.
  class CAPABILITY("flag") Flag {
   public:
    bool TryAcquire() TRY_ACQUIRE(true);
    bool AcquireWithin50Ms(Clock clock) TRY_ACQUIRE(true);
    void Release() RELEASE();

   private:
    std::atomic<bool> taken_ = false;
  };

  /// About one second of blocks, summed up in one log line.
  struct ActiveInterval {
    float min = 1000.0f;
    float max = 0;
    float sum = 0;
    uint32_t count = 0;
  };

  void RecordPeriod(float period_ms);
  void ResetInterval() REQUIRES(flag_);
  void LogInterval() REQUIRES(flag_);
  void ResetPeriods();

  const Clock clock_;
  Flag flag_;

  // Written without the flag by StartMeasurement, which must not skip a period. Relaxed throughout:
  // each is a figure of its own, and one that is lost against a concurrent reset is harmless.
  std::atomic<int64_t> last_start_ = 0;
  std::atomic<float> period_sum_ = 0;
  std::atomic<uint32_t> period_count_ = 0;
  std::atomic<float> interval_period_min_ = 1000.0f;
  std::atomic<float> interval_period_max_ = 0;
  std::atomic<float> interval_period_sum_ = 0;
  std::atomic<uint32_t> buffer_size_ = 0;

  std::vector<float> ring_ GUARDED_BY(flag_);
  uint32_t write_index_ GUARDED_BY(flag_) = 0;
  bool wrapped_ GUARDED_BY(flag_) = false;
  ActiveInterval active_ GUARDED_BY(flag_);
};

}  // namespace kvox
