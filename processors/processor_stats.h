// Timing statistics of one processor: for each block its period (start to start) and its active
// time (start to end of processing), in milliseconds.
//
// The I/O thread measures, service threads read and reset. One flag guards what they share; the I/O
// thread tries it once and otherwise skips the measurement, so a reader never delays audio.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "kvox/common/mutex.h"
#include "processors/block.h"

namespace kvox {

class KvoxProcessorStats {
 public:
  /// RT: the processing of a block begins. Times are those of the packet clock.
  void StartMeasurement(uint64_t now_ns);

  /// RT: the block that began at `begin_ns` has ended. After a reset in between it is not measured.
  /// Logs a line for about every second of blocks.
  void StopMeasurement(uint64_t begin_ns, uint64_t now_ns);

  // Service threads. Each of the three waits at most 50 ms for the flag, then returns false.

  /// Keeps the latest `entries` active times from now on; 0 keeps none.
  bool SetBufferSize(unsigned int entries);

  /// Average period, 0 when none was measured, and the active times kept, oldest first. Clears
  /// both.
  bool GetMeasurements(float& average_period, std::vector<float>& measurements);

  /// Clears all measurements except the number of blocks.
  bool Reset();

  /// How many active times are kept at most.
  uint32_t buffer_size() const { return buffer_size_.load(std::memory_order_relaxed); }

  /// How many blocks have been started. Never reset.
  uint32_t blocks() const { return blocks_.load(std::memory_order_relaxed); }

 private:
  /// A reader may hold the flag while it copies a ring of any size; the I/O thread never waits.
  class CAPABILITY("flag") Flag {
   public:
    bool TryAcquire() TRY_ACQUIRE(true);
    bool AcquireWithin50Ms() TRY_ACQUIRE(true);
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

  Flag flag_;

  // Written without the flag by StartMeasurement, which must not skip a period. Relaxed throughout:
  // the figures are independent, and losing one to a concurrent reset is harmless.
  std::atomic<uint32_t> blocks_ = 0;
  std::atomic<float> period_sum_ = 0;
  std::atomic<uint32_t> period_count_ = 0;
  std::atomic<float> interval_period_min_ = 1000.0f;
  std::atomic<float> interval_period_max_ = 0;
  std::atomic<float> interval_period_sum_ = 0;
  std::atomic<uint32_t> buffer_size_ = 0;
  std::atomic<uint32_t> resets_ = 0;  // changes under the flag only

  // The I/O thread's.
  uint64_t last_start_ = 0;       // 0 after a reset
  uint32_t resets_at_start_ = 0;  // of the present block

  std::vector<float> ring_ GUARDED_BY(flag_);
  uint32_t write_index_ GUARDED_BY(flag_) = 0;
  bool wrapped_ GUARDED_BY(flag_) = false;
  ActiveInterval active_ GUARDED_BY(flag_);
};

/// RT: measures the processing of a block for as long as it exists.
class MeasuredBlock {
 public:
  MeasuredBlock(KvoxProcessorStats& stats, const Block& block)
      : stats_(stats), waiter_(block.waiter), begin_ns_(block.begin_ns) {
    stats_.StartMeasurement(begin_ns_);
  }
  ~MeasuredBlock() { stats_.StopMeasurement(begin_ns_, waiter_.NowNs()); }
  MeasuredBlock(const MeasuredBlock&) = delete;
  MeasuredBlock& operator=(const MeasuredBlock&) = delete;

 private:
  KvoxProcessorStats& stats_;
  IoWaiter& waiter_;
  const uint64_t begin_ns_;
};

}  // namespace kvox
