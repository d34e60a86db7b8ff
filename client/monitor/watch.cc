#include <algorithm>
#include <utility>

#include "client/flight/log_file.h"
#include "client/monitor/diff.h"
#include "client/monitor/monitor.h"
#include "client/monitor/run_loop.h"
#include "client/output/json.h"
#include "kvox/common/fixed_text.h"
#include "libkvox/flight/incidents.h"

namespace kvox::client {
namespace {

using Clock = RunLoop::Clock;

constexpr auto kSilence = std::chrono::seconds(5);
constexpr uint64_t kEvidenceNs = 300'000'000;

/// Turns poll results into lines, and counts those.
class Watcher {
 public:
  Watcher(const Context& context, const SignalFd& signals, int limit)
      : context_(context), signals_(signals), limit_(limit) {}

  /// True when as many changes were printed as are wanted.
  bool Done() const { return limit_ > 0 && count_ >= limit_; }
  int count() const { return count_; }

  void Update(PollResult result) {
    if (silent_) Print({"daemon", "kvoxd", "answers"});
    silent_ = false;
    if (!result.sample) {
      if (!present_) return;
      present_ = false;
      Print({"daemon", "kvoxd", "gone"});
      return context_.out.Message(result.error);
    }
    if (!present_) Print({"daemon", "kvoxd", "appeared"});
    present_ = true;
    ReportUnparsed(result.sample->unparsed);
    if (sample_) {
      for (const Change& change : Diff(*sample_, *result.sample)) Print(change);
    }
    sample_ = std::move(result.sample);
    if (sample_->flight) ReportLosses(*sample_->flight);
  }

  void CheckSilence(Clock::duration in_flight) {
    if (in_flight < kSilence || silent_) return;
    silent_ = true;
    Print({"daemon", "kvoxd", "silent"});
  }

 private:
  void Print(const Change& change) {
    if (Done()) return;
    ++count_;
    Show(change);
  }

  void Show(const Change& change) {
    Json record = {{"time", UtcTime()}};
    record.update(RecordOf(change));
    const SignalFd::Unblocked scope(signals_);
    context_.out.One({LocalTime() + " " + LineOf(change)}, record);
  }

  /// Of the time since the last report, but for the last moments: evidence may be still to come.
  /// They count as no change. The records are read only when something was lost.
  void ReportLosses(const FlightView& counters) {
    uint64_t lost = 0;
    for (const StreamView& stream : counters.streams)
      lost += stream.Lost() + stream.renumbered + stream.since_ns;
    const uint64_t now_ns = EndOf(counters);
    if (lost != std::exchange(lost_, lost)) lost_at_ns_ = now_ns;
    const uint64_t from_ns = losses_since_ns_;
    const uint64_t until_ns = now_ns - std::min(now_ns, kEvidenceNs);
    losses_since_ns_ = std::max(from_ns, from_ns == 0 ? now_ns : until_ns);
    if (from_ns == 0 || from_ns > lost_at_ns_ || until_ns <= from_ns) return;
    const auto path = FindFlight();
    std::string error;
    const auto flight = path ? flight::ReadFlight(*path, {}, &error) : std::nullopt;
    if (!flight) return;
    for (const StreamView& stream : flight->streams) {
      for (const Incident& incident : FindIncidents(*flight, stream, from_ns, until_ns)) {
        if (!IsLoss(incident)) continue;
        Show({"tap-out", stream.name, "lost", "cause", CauseWord(incident.blame.cause),
              CountsOf(incident) + ": " + CauseText(incident.blame)});
      }
    }
  }

  void ReportUnparsed(int unparsed) {
    if (unparsed != unparsed_ && unparsed > 0) {
      context_.out.Message(FormatText<128>(
          "%d row(s) of the daemon's tables cannot be read and are not watched; 'kvoxctl graph' "
          "shows them as they are",
          unparsed));
    }
    unparsed_ = unparsed;
  }

  const Context& context_;
  const SignalFd& signals_;
  const int limit_;
  int count_ = 0;
  std::optional<Sample> sample_;
  bool present_ = true;
  bool silent_ = false;
  int unparsed_ = 0;
  uint64_t losses_since_ns_ = 0;  // not reported yet, on the packet clock; 0 at first
  uint64_t lost_ = 0;
  uint64_t lost_at_ns_ = 0;  // when that was seen to grow
};

/// When --timeout expires.
Clock::time_point EndOf(const Context& context) {
  if (!context.in.Has("--timeout")) return Clock::time_point::max();
  return Clock::now() + context.daemon.wait();
}

}  // namespace

int Watch(const Context& context) {
  const auto interval = IntervalOf(context.in);
  const int limit = LimitOf(context.in, "--count");
  const auto end = EndOf(context);
  const SignalFd signals({SIGINT, SIGTERM, SIGHUP});
  context.daemon.kvox();  // a daemon must be running at first
  RunLoop loop(signals, {.taps = true}, interval);
  Watcher watcher(context, signals, limit);
  while (!watcher.Done()) {
    LoopEvent event = loop.Next(end);
    if (event.signal != 0) return EndBySignal(event.signal);
    if (event.closed) return kDone;
    if (event.result) watcher.Update(std::move(*event.result));
    watcher.CheckSilence(loop.InFlight());
    if (Clock::now() < end) continue;
    if (limit == 0) return kDone;
    throw Failure(kTimedOut, "watch: " + std::to_string(watcher.count()) + " of " +
                                 std::to_string(limit) +
                                 " changes came in time; give --timeout more seconds");
  }
  return kDone;
}

}  // namespace kvox::client
