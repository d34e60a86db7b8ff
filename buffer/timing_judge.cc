#include "buffer/timing_judge.h"

#include <algorithm>
#include <cstdlib>

#include "kvox/common/kvox_packet.h"

namespace kvox {
namespace {

constexpr double kEarlyBelow = 0.75;  // of the nominal period
constexpr double kLateAbove = 1.25;
constexpr int kSlipAfter = 2;
constexpr uint64_t kNsPerSecond = 1'000'000'000;
constexpr uint64_t kNsPerMs = 1'000'000;
constexpr uint32_t kUntimedInterval = 100;

}  // namespace

bool IsTimed(const KvoxTapFormat& format, uint32_t payload_size) {
  const uint32_t frame = FrameSize(format);
  return format.sample_rate != 0 && frame != 0 && frame <= payload_size;
}

uint32_t ReportInterval(const KvoxTapFormat& format, uint32_t payload_size) {
  if (!IsTimed(format, payload_size)) return kUntimedInterval;
  const uint64_t packets = uint64_t{2} * format.sample_rate / FrameCount(format, payload_size);
  return static_cast<uint32_t>(std::clamp<uint64_t>(packets, 1, UINT32_MAX));
}

TimingVerdict TimingJudge::Judge(uint64_t now_ns, const KvoxTapFormat& format,
                                 uint32_t payload_size) {
  TimingVerdict verdict;
  const bool timed = IsTimed(format, payload_size);
  if (timed) {
    verdict.period_ns =
        uint64_t{FrameCount(format, payload_size)} * kNsPerSecond / format.sample_rate;
  }
  if (seen_any_ && timed) {
    elapsed_ms_ = static_cast<float>(static_cast<double>(now_ns - previous_ns_) * 1e-6);
    verdict.arrival = Compare(static_cast<uint32_t>(verdict.period_ns / kNsPerMs));
    switch (verdict.arrival) {
      case TimingVerdict::Arrival::kOnTime:
        drift_ = 0;
        break;
      case TimingVerdict::Arrival::kEarly:
        --drift_;
        break;
      case TimingVerdict::Arrival::kLate:
        ++drift_;
        break;
    }
    if (std::abs(drift_) == kSlipAfter) {
      drift_ = 0;
      verdict.slipped = true;
    }
  }
  seen_any_ = true;
  last_ = verdict.arrival;
  previous_ns_ = now_ns;
  return verdict;
}

TimingVerdict::Arrival TimingJudge::Compare(uint32_t period_ms) const {
  if (kEarlyBelow * period_ms > elapsed_ms_) return TimingVerdict::Arrival::kEarly;
  if (kLateAbove * period_ms < elapsed_ms_) return TimingVerdict::Arrival::kLate;
  return TimingVerdict::Arrival::kOnTime;
}

}  // namespace kvox
