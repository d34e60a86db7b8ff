#include "tests/campaign/audio_check.h"

#include <fmt/format.h>

#include <algorithm>
#include <thread>

namespace kvox::campaign {
namespace {

constexpr Ms kPollInterval{20};

std::string Describe(const Stream& stream, const TapStats& before, const TapStats& now) {
  return fmt::format("{}: {} sent, {} exact, {} silent, {} different, {} missing, {} in a row",
                     stream.TapName(), now.sent - before.sent, now.exact - before.exact,
                     now.silent - before.silent, now.different - before.different,
                     now.missing - before.missing, now.exact_in_row);
}

}  // namespace

uint64_t ExactRun(const Stream& stream, const TapStats& before, const TapStats& now) {
  // The simulator counts no runs of silence.
  if (stream.returns == Returns::kSilence) return now.silent - before.silent;
  return std::min(now.exact - before.exact, now.exact_in_row);
}

AudioCheck::AudioCheck(const SimControl& sim, const LagMeter& lag)
    : sim_(sim), lag_(lag), begin_(Clock::now()), lag_before_(lag.Total()), before_(sim.Status()) {}

Recovery AudioCheck::Await(const StreamList& streams, Ms limit) const {
  Recovery recovery;
  StreamList waiting = streams;
  for (;;) {
    const SimStatus now = sim_.Status();
    const auto elapsed = std::chrono::duration_cast<Ms>(Clock::now() - begin_);
    std::erase_if(waiting, [&](const Stream* stream) {
      const std::string tap = stream->TapName();
      const uint64_t run = ExactRun(*stream, before_.taps.at(tap), now.taps.at(tap));
      if (run < kExactPackets) return false;
      const Ms run_time = stream->block * static_cast<int64_t>(run - 1);
      recovery.slowest = std::max(recovery.slowest, elapsed - run_time);
      return true;
    });
    if (waiting.empty()) return recovery;
    const Ms allowance = lag_.Allowance(lag_before_);
    const Ms most = limit + waiting.front()->block * static_cast<int64_t>(kExactPackets + 1);
    if (elapsed > most + allowance) {
      recovery.failure = fmt::format(
          "not exact again after {} ms; {} ms are allowed, and {} ms for the lag:", elapsed.count(),
          most.count(), allowance.count());
      for (const Stream* stream : waiting) {
        const std::string tap = stream->TapName();
        recovery.failure += "\n    " + Describe(*stream, before_.taps.at(tap), now.taps.at(tap));
      }
      return recovery;
    }
    std::this_thread::sleep_for(kPollInterval);
  }
}

}  // namespace kvox::campaign
