#include "tests/campaign/loss_report.h"

#include <fmt/format.h>

namespace kvox::campaign {
namespace {

uint64_t Excess(uint64_t count, uint64_t explained) {
  return count > explained ? count - explained : 0;
}

/// Blocks that came back different from what was sent. A stream that clients change may also be
/// silent, because its processor is off.
uint64_t Changed(const Stream& stream, const TapStats& stats) {
  const bool may_be_silent =
      stream.returns == Returns::kSilence || stream.control != Control::kStatic;
  return stats.different + (may_be_silent ? 0 : stats.silent);
}

uint64_t DroppedForTiming(const LogAnalyzer& log, const Stream& stream) {
  const Losses losses = log.LossesOf(fmt::format("tapout{}", stream.buffer));
  return losses.timing + losses.start;
}

}  // namespace

LossReport LossesBetween(const LossSample& before, const LossSample& after) {
  StreamList all;
  for (const Stream& stream : Streams()) all.push_back(&stream);
  return LossesBetween(before, after, all);
}

LossReport LossesBetween(const LossSample& before, const LossSample& after,
                         const StreamList& streams) {
  LossReport report;
  for (const Stream* each : streams) {
    const Stream& stream = *each;
    const TapStats& from = before.sim.taps.at(stream.TapName());
    const TapStats& to = after.sim.taps.at(stream.TapName());
    const uint64_t timing =
        DroppedForTiming(after.log, stream) - DroppedForTiming(before.log, stream);
    const std::string relay = ToString(stream.processor);
    const uint64_t slow = after.log.SlowBlocks(relay) - before.log.SlowBlocks(relay);
    const uint64_t missing = to.missing - from.missing;
    const uint64_t changed = Changed(stream, to) - Changed(stream, from);
    const uint64_t lost = Excess(missing, timing) + Excess(changed, slow);
    report.passed += to.received - from.received;
    report.timing += timing;
    report.slow_clients += slow;
    report.lost += lost;
    if (lost == 0) continue;
    report.streams.push_back(
        fmt::format("{}: {} missing, {} of them because of their timing; {} changed, {} of them by "
                    "a slow client",
                    stream.TapName(), missing, timing, changed, slow));
  }
  return report;
}

uint64_t MissingBetween(const SimStatus& before, const SimStatus& after) {
  uint64_t missing = 0;
  for (const auto& [tap, stats] : after.taps)
    missing += stats.missing - before.taps.at(tap).missing;
  return missing;
}

}  // namespace kvox::campaign
