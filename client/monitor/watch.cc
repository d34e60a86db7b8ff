#include "client/monitor/watch.h"

#include "client/monitor/diff.h"
#include "client/monitor/run_loop.h"
#include "kvox/common/fixed_text.h"

namespace kvox::client {
namespace {

using Clock = Live::Clock;

constexpr auto kSilence = std::chrono::seconds(5);

/// Turns looks into lines, and counts those.
class Watcher {
 public:
  Watcher(const Context& context, const SignalFd& signals, int most)
      : context_(context), signals_(signals), most_(most) {}

  /// True when as many changes were printed as were asked for.
  bool Done() const { return most_ > 0 && count_ >= most_; }
  int count() const { return count_; }

  void Take(Look look) {
    if (silent_) Print({"daemon", "kvoxd", "answers", "", ""});
    silent_ = false;
    if (!look.sample) {
      if (!present_) return;
      present_ = false;
      Print({"daemon", "kvoxd", "gone", "", ""});
      return context_.out.Message(look.why_not);
    }
    if (!present_) Print({"daemon", "kvoxd", "appeared", "", ""});
    present_ = true;
    ReportUnread(look.sample->unread);
    if (known_) {
      for (const Change& change : ChangesBetween(*known_, *look.sample)) Print(change);
    }
    known_ = std::move(look.sample);
  }

  void Wait(Clock::duration unanswered) {
    if (unanswered < kSilence || silent_) return;
    silent_ = true;
    Print({"daemon", "kvoxd", "silent", "", ""});
  }

 private:
  void Print(const Change& change) {
    if (Done()) return;
    ++count_;
    Fields fields = FieldsOf(change);
    fields.emplace(fields.begin(), "time", UtcTime());
    const SignalFd::Unblocked scope(signals_);
    context_.out.One({LocalTime() + " " + LineOf(change)}, fields);
  }

  void ReportUnread(int unread) {
    if (unread != unread_ && unread > 0) {
      context_.out.Message(FormatText<128>(
          "%d row(s) of the daemon's tables cannot be read and are not watched; 'kvoxctl graph' "
          "shows them as they are",
          unread));
    }
    unread_ = unread;
  }

  const Context& context_;
  const SignalFd& signals_;
  const int most_;
  int count_ = 0;
  std::optional<Sample> known_;
  bool present_ = true;
  bool silent_ = false;
  int unread_ = 0;
};

/// When --timeout says that it is over.
Clock::time_point EndOf(const Context& context) {
  if (!context.in.Has("--timeout")) return Clock::time_point::max();
  return Clock::now() + context.daemon.wait();
}

}  // namespace

int Watch(const Context& context) {
  const auto interval = ReadInterval(context.in);
  const int most = ReadCount(context.in, "--count");
  const auto end = EndOf(context);
  const SignalFd signals({SIGINT, SIGTERM, SIGHUP});
  context.daemon.kvox();  // which has to be there at first
  Live live(signals, {.taps = true}, interval);
  Watcher watcher(context, signals, most);
  while (!watcher.Done()) {
    Turn turn = live.Next(end);
    if (turn.signal != 0) return EndBySignal(turn.signal);
    if (turn.closed) return kDone;
    if (turn.look) watcher.Take(std::move(*turn.look));
    watcher.Wait(live.Unanswered());
    if (Clock::now() < end) continue;
    if (most == 0) return kDone;
    throw Failure(kTimedOut, "watch: " + std::to_string(watcher.count()) + " of " +
                                 std::to_string(most) +
                                 " changes came in time; give --timeout more seconds");
  }
  return kDone;
}

}  // namespace kvox::client
