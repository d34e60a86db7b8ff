#include "processors/processor_stats.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "kvox/common/log.h"

namespace kvox {
namespace {

constexpr float kLongestPeriodMs = 1000.0f;  // longer ones are pauses, not periods
constexpr float kIntervalMs = 1000.0f;
constexpr uint32_t kPeriodsPerAverage = 10000;
constexpr auto kFlagTimeout = std::chrono::milliseconds(50);
constexpr auto kFlagPoll = std::chrono::milliseconds(1);
constexpr auto kRelaxed = std::memory_order_relaxed;

float ElapsedMs(uint64_t from_ns, uint64_t to_ns) {
  return static_cast<float>(static_cast<double>(to_ns - from_ns) / 1e9 * 1000.0);
}

// Only the I/O thread adds and counts, so load and store suffice.
void Add(std::atomic<float>& sum, float value) {
  sum.store(sum.load(kRelaxed) + value, kRelaxed);
}

}  // namespace

// Sequentially consistent, paired with Release: the next holder sees what the last one wrote.
bool KvoxProcessorStats::Flag::TryAcquire() {
  return !taken_.exchange(true);
}

bool KvoxProcessorStats::Flag::AcquireWithin50Ms() {
  const auto deadline = std::chrono::steady_clock::now() + kFlagTimeout;
  while (!TryAcquire()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(kFlagPoll);
  }
  return true;
}

void KvoxProcessorStats::Flag::Release() {
  taken_.store(false);
}

void KvoxProcessorStats::StartMeasurement(uint64_t now_ns) {
  const uint32_t resets = resets_.load(kRelaxed);
  if (resets != std::exchange(resets_at_start_, resets)) last_start_ = 0;
  const float period_ms = ElapsedMs(std::exchange(last_start_, now_ns), now_ns);
  if (period_ms <= kLongestPeriodMs) {
    RecordPeriod(period_ms);
  } else if (flag_.TryAcquire()) {
    ResetPeriods();
    ResetInterval();
    flag_.Release();
  }
  blocks_.store(blocks_.load(kRelaxed) + 1, kRelaxed);
}

void KvoxProcessorStats::RecordPeriod(float period_ms) {
  const uint32_t count = period_count_.load(kRelaxed) + 1;
  if (count == kPeriodsPerAverage) {
    period_sum_.store(0, kRelaxed);
    period_count_.store(1, kRelaxed);
  } else {
    period_count_.store(count, kRelaxed);
  }
  Add(period_sum_, period_ms);
  interval_period_min_.store(std::min(interval_period_min_.load(kRelaxed), period_ms), kRelaxed);
  interval_period_max_.store(std::max(interval_period_max_.load(kRelaxed), period_ms), kRelaxed);
  Add(interval_period_sum_, period_ms);
}

void KvoxProcessorStats::StopMeasurement(uint64_t begin_ns, uint64_t now_ns) {
  if (!flag_.TryAcquire()) return;
  if (resets_.load(kRelaxed) != resets_at_start_) return flag_.Release();
  const float active_ms = ElapsedMs(begin_ns, now_ns);
  if (!ring_.empty()) {
    ring_[write_index_] = active_ms;
    if (++write_index_ == ring_.size()) {
      write_index_ = 0;
      wrapped_ = true;
    }
  }
  active_.min = std::min(active_.min, active_ms);
  active_.max = std::max(active_.max, active_ms);
  active_.sum += active_ms;
  ++active_.count;
  if (interval_period_sum_.load(kRelaxed) > kIntervalMs) {
    LogInterval();
    ResetInterval();
  }
  flag_.Release();
}

void KvoxProcessorStats::LogInterval() {
  const auto blocks = static_cast<float>(active_.count);
  const float min = interval_period_min_.load(kRelaxed);
  const float max = interval_period_max_.load(kRelaxed);
  const float average = interval_period_sum_.load(kRelaxed) / blocks;
  const bool unhealthy =
      min / average < 0.75f || max / average > 1.25f || active_.max / average > 0.9f;
  if (unhealthy) {
    LogWarning(
        "Warning: Period min/max/avg: %.3f/%.3f/%.3f ms, Active min/max/avg: %.3f/%.3f/%.3f ms",
        min, max, average, active_.min, active_.max, active_.sum / blocks);
  } else {
    LogInfo("Period min/max/avg: %.3f/%.3f/%.3f ms, Active min/max/avg: %.3f/%.3f/%.3f ms", min,
            max, average, active_.min, active_.max, active_.sum / blocks);
  }
}

void KvoxProcessorStats::ResetInterval() {
  interval_period_min_.store(1000.0f, kRelaxed);
  interval_period_max_.store(0, kRelaxed);
  interval_period_sum_.store(0, kRelaxed);
  active_ = {};
}

void KvoxProcessorStats::ResetPeriods() {
  period_sum_.store(0, kRelaxed);
  period_count_.store(0, kRelaxed);
}

bool KvoxProcessorStats::GetMeasurements(float& average_period, std::vector<float>& measurements) {
  if (!flag_.AcquireWithin50Ms()) return false;
  const uint32_t periods = period_count_.load(kRelaxed);
  average_period = periods == 0 ? 0 : period_sum_.load(kRelaxed) / static_cast<float>(periods);
  const auto written = ring_.begin() + write_index_;
  measurements.assign(ring_.begin(), written);
  if (wrapped_) measurements.insert(measurements.begin(), written, ring_.end());
  ResetPeriods();
  write_index_ = 0;
  wrapped_ = false;
  flag_.Release();
  return true;
}

bool KvoxProcessorStats::SetBufferSize(unsigned int entries) {
  if (!flag_.AcquireWithin50Ms()) return false;
  ring_.resize(entries);
  ring_.shrink_to_fit();
  buffer_size_.store(entries, kRelaxed);
  write_index_ = 0;
  wrapped_ = false;
  flag_.Release();
  return true;
}

bool KvoxProcessorStats::Reset() {
  if (!flag_.AcquireWithin50Ms()) return false;
  write_index_ = 0;
  wrapped_ = false;
  resets_.store(resets_.load(kRelaxed) + 1, kRelaxed);
  ResetPeriods();
  flag_.Release();
  return true;
}

}  // namespace kvox
