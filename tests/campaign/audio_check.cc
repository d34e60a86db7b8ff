#include "tests/campaign/audio_check.h"

#include <fmt/format.h>

#include <algorithm>
#include <thread>

namespace kvox::campaign {
namespace {

constexpr Ms kLook{20};

/// Packets that came back as they should.
uint64_t Good(const Stream& stream, const TapFigures& figures) {
  return stream.returns == Returns::kSilence ? figures.silent : figures.exact;
}

/// What comes back silent is never exact, so its row is not counted.
uint64_t Row(const Stream& stream, const TapFigures& before, const TapFigures& now) {
  const uint64_t good = Good(stream, now) - Good(stream, before);
  return stream.returns == Returns::kSilence ? good : std::min(good, now.exact_in_row);
}

std::string Describe(const Stream& stream, const TapFigures& before, const TapFigures& now) {
  return fmt::format("{}: {} sent, {} exact, {} silent, {} different, {} missing, {} in a row",
                     stream.TapName(), now.sent - before.sent, now.exact - before.exact,
                     now.silent - before.silent, now.different - before.different,
                     now.missing - before.missing, now.exact_in_row);
}

}  // namespace

bool RowWatch::Look(const TapFigures& now) const {
  return Row(stream_, before_, now) >= kExactRow;
}

Ms RowWatch::RowTime(const TapFigures& now) const {
  return stream_.block * static_cast<int64_t>(Row(stream_, before_, now) - 1);
}

AudioCheck::AudioCheck(const SimControl& sim, const LoadMeter& load)
    : sim_(sim),
      load_(load),
      begin_(Clock::now()),
      lost_before_(load.Lost()),
      before_(sim.Status()) {}

Recovery AudioCheck::Await(const StreamList& streams, Ms limit) {
  Recovery recovery;
  StreamList waiting = streams;
  for (;;) {
    const SimStatus now = sim_.Status();
    const auto elapsed = std::chrono::duration_cast<Ms>(Clock::now() - begin_);
    std::erase_if(waiting, [&](const Stream* stream) {
      const std::string tap = stream->TapName();
      const RowWatch watch(*stream, before_.taps.at(tap));
      if (!watch.Look(now.taps.at(tap))) return false;
      recovery.slowest = std::max(recovery.slowest, elapsed - watch.RowTime(now.taps.at(tap)));
      return true;
    });
    if (waiting.empty()) return recovery;
    const Ms allowance = load_.Allowance(lost_before_);
    const Ms row = waiting.front()->block * static_cast<int64_t>(kExactRow + 1);
    if (elapsed > limit + allowance + row) {
      recovery.failure = fmt::format(
          "not exact again {} ms after the end ({} ms are allowed, {} "
          "more for the load):",
          elapsed.count(), (limit + row).count(), allowance.count());
      for (const Stream* stream : waiting) {
        const std::string tap = stream->TapName();
        recovery.failure += "\n    " + Describe(*stream, before_.taps.at(tap), now.taps.at(tap));
      }
      return recovery;
    }
    std::this_thread::sleep_for(kLook);
  }
}

}  // namespace kvox::campaign
