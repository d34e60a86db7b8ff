#include "tests/campaign/soak_ledger.h"

#include <fmt/format.h>

#include "tests/campaign/streams.h"

namespace kvox::campaign {
namespace {

uint64_t Excess(uint64_t count, uint64_t explained) {
  return count > explained ? count - explained : 0;
}

/// Blocks that came back as something else than they were sent.
uint64_t Changed(const Stream& stream, const TapFigures& figures) {
  const uint64_t silent = stream.returns == Returns::kSilence ? 0 : figures.silent;
  return figures.different + silent;
}

/// A processor that a client has switched off leaves its output silent.
bool MayBeSilent(const Stream& stream) {
  return stream.owner == Owner::kClient || stream.owner == Owner::kUseCase;
}

}  // namespace

LossReport LossesBetween(const Moment& before, const Moment& after) {
  LossReport report;
  for (const Stream& stream : Streams()) {
    const TapFigures& from = before.sim.taps.at(stream.TapName());
    const TapFigures& to = after.sim.taps.at(stream.TapName());
    const std::string buffer = fmt::format("tapout{}", stream.buffer);
    const Losses losses_from = before.log.LossesOf(buffer);
    const Losses losses_to = after.log.LossesOf(buffer);
    const uint64_t timing =
        losses_to.timing + losses_to.start - losses_from.timing - losses_from.start;
    const std::string relay = ToString(stream.processor);
    const uint64_t slow = after.log.SlowBlocks(relay) - before.log.SlowBlocks(relay);
    const uint64_t missing = to.missing - from.missing;
    const uint64_t changed = MayBeSilent(stream) ? to.different - from.different
                                                 : Changed(stream, to) - Changed(stream, from);
    const uint64_t lost = Excess(missing, timing) + Excess(changed, slow);
    report.passed += to.received - from.received;
    report.timing += timing;
    report.slow_clients += slow;
    report.lost += lost;
    if (lost == 0) continue;
    report.streams.push_back(
        fmt::format("{}: {} missing, {} of them by their time; {} changed, {} of them by a slow "
                    "client",
                    stream.TapName(), missing, timing, changed, slow));
  }
  return report;
}

uint64_t MissingBetween(const SimStatus& before, const SimStatus& after) {
  uint64_t missing = 0;
  for (const auto& [tap, figures] : after.taps)
    missing += figures.missing - before.taps.at(tap).missing;
  return missing;
}

}  // namespace kvox::campaign
