#include "client/monitor/top.h"

#include <unistd.h>

#include "client/monitor/columns.h"
#include "client/monitor/frame.h"
#include "client/monitor/run_loop.h"
#include "client/monitor/screen.h"
#include "client/monitor/top_model.h"
#include "client/output/standard_streams.h"
#include "kvox/common/fixed_text.h"

namespace kvox::client {
namespace {

constexpr int kCtrlL = 'L' - '@';

/// What was asked for.
struct Wish {
  std::chrono::milliseconds interval;
  int most = 0;  // refreshes; 0: no end
  std::vector<const Column*> columns;
  bool measured = false;
  Order order = {};
};

/// How it ended: by a signal, or with a status.
struct End {
  int signal = 0;
  int status = kDone;
};

const Column* ReadSort(const std::string& word, const std::vector<const Column*>& columns) {
  if (word.empty()) return nullptr;
  const Column* const column = FindColumn(columns, word);
  if (column != nullptr) return column;
  std::string names;
  for (const Column* const each : columns) names += std::string(" ") + each->name;
  throw UsageError("--sort: '" + ValidUtf8(word) + "' is none of" + names +
                   "; what is measured needs --measure");
}

Wish ReadWish(const Input& in) {
  const bool measured = in.Has("--measure");
  Wish wish{.interval = ReadInterval(in),
            .most = ReadCount(in, "-n"),
            .columns = ColumnsOf(measured),
            .measured = measured};
  wish.order = {ReadSort(in.Get("--sort"), wish.columns), in.Has("--reverse")};
  return wish;
}

void CheckAnswer(const Context& context, Live& live) {
  const auto longest = context.daemon.wait();
  if (live.Unanswered() < longest) return;
  throw Failure(kTimedOut,
                "kvoxd did not answer within " +
                    FormatText<32>("%g", std::chrono::duration<double>(longest).count()) +
                    " s; see whether it hangs, and restart it");
}

/// One refresh as plain rows.
void Print(const Context& context, const Wish& wish, const Picture& picture, bool first) {
  std::vector<Row> rows;
  if (picture.present()) rows = picture.rows();
  Sort(rows, wish.order);
  std::vector<std::string> lines;
  if (!first) lines.emplace_back();
  lines.push_back(picture.Head({}));
  if (picture.present()) lines.push_back(HeaderLine(wish.columns));
  std::vector<Fields> records;
  for (const Row& row : rows) {
    lines.push_back(LineOf(wish.columns, row));
    records.push_back(FieldsOf(row));
  }
  if (!first && context.out.format() == Format::kShort) PrintOut("\n");
  context.out.List(lines, "rows", records, picture.unread(),
                   {{"time", UtcTime()}, {"daemon", picture.present()}});
}

End InBatch(const Context& context, const Wish& wish, const SignalFd& signals) {
  Live live(signals, {.measurements = wish.measured}, wish.interval);
  Picture picture;
  for (int count = 0; wish.most == 0 || count < wish.most;) {
    Turn turn = live.Next(Live::Clock::time_point::max());
    if (turn.signal != 0) return {.signal = turn.signal};
    if (turn.closed) return {};
    CheckAnswer(context, live);
    if (!turn.look) continue;
    const bool was_present = picture.present() || count == 0;
    picture.Take(std::move(*turn.look), LocalTime());
    if (was_present && !picture.present()) context.out.Message(picture.why_not());
    const SignalFd::Unblocked scope(signals);
    Print(context, wish, picture, count == 0);
    ++count;
  }
  return {.status = picture.present() ? kDone : kNoDaemon};
}

/// The view on the whole screen.
class FullScreen {
 public:
  FullScreen(const Context& context, const Wish& wish, const SignalFd& signals)
      : context_(context),
        wish_(wish),
        live_(signals, {.measurements = wish.measured}, wish.interval, STDIN_FILENO),
        view_{.order = wish.order} {}

  End Run() {
    while (wish_.most == 0 || count_ < wish_.most) {
      Turn turn = live_.Next(Live::Clock::time_point::max());
      if (turn.closed) return {};
      if (turn.signal != 0 && !Survive(turn.signal)) return {.signal = turn.signal};
      if (turn.input && !TakeKeys()) return {};
      if (turn.look) {
        picture_.Take(std::move(*turn.look), LocalTime());
        ++count_;
      }
      CheckAnswer(context_, live_);
      Draw();
    }
    return {.status = picture_.present() ? kDone : kNoDaemon};
  }

 private:
  /// False when the signal is to end the program.
  bool Survive(int signal) {
    if (signal != SIGTSTP && signal != SIGCONT && signal != SIGWINCH) return false;
    if (signal != SIGWINCH) screen_.GiveBack();  // who else had it may have changed it
    if (signal == SIGTSTP) RaiseDefault(signal);
    screen_.Resize();
    return true;
  }

  /// False when the user wants to leave.
  bool TakeKeys() {
    const int rows = static_cast<int>(picture_.rows().size());
    for (int key = screen_.TakeKey(); key != -1; key = screen_.TakeKey()) {
      if (key == 'q') return false;
      if (key == ' ') live_.Hasten();
      if (key == kCtrlL) screen_.GiveBack();  // the next frame is drawn from nothing
      ApplyKey(key, wish_.columns, rows, PageOf(screen_.size()), view_);
    }
    return true;
  }

  void Draw() {
    screen_.Show(DrawFrame(picture_.Head(live_.Unanswered()), picture_.rows(), wish_.columns,
                           screen_.size(), view_));
  }

  const Context& context_;
  const Wish& wish_;
  Live live_;
  Screen screen_;  // given back before the daemon is waited for
  Picture picture_;
  View view_;
  int count_ = 0;
};

}  // namespace

int Top(const Context& context) {
  const Wish wish = ReadWish(context.in);
  const bool batch = context.in.Has("--batch") || context.out.format() != Format::kText;
  if (!batch) RequireTerminal();
  const SignalFd signals = batch ? SignalFd({SIGINT, SIGTERM, SIGHUP})
                                 : SignalFd({SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2,
                                             SIGXCPU, SIGTSTP, SIGCONT, SIGWINCH});
  context.daemon.kvox();  // which has to be there at first
  const End end =
      batch ? InBatch(context, wish, signals) : FullScreen(context, wish, signals).Run();
  return end.signal != 0 ? EndBySignal(end.signal) : end.status;
}

}  // namespace kvox::client
