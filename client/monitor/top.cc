#include <unistd.h>

#include <utility>

#include "client/flight/log_file.h"
#include "client/monitor/monitor.h"
#include "client/monitor/run_loop.h"
#include "client/monitor/screen.h"
#include "client/monitor/top_model.h"
#include "client/monitor/top_text.h"
#include "client/output/json.h"
#include "kvox/common/fixed_text.h"

namespace kvox::client {
namespace {

constexpr int kCtrlL = 'L' - '@';

struct TopOptions {
  std::chrono::milliseconds interval;
  int limit = 0;  // of refreshes; 0 for none
  Columns columns;
  bool measured = false;
  Order order = {};
};

/// How it ended: by a signal, or with a status.
struct End {
  int signal = 0;
  int status = kDone;
};

const Column* ReadSort(const std::string& word, const Columns& columns) {
  if (word.empty()) return nullptr;
  const Column* const column = FindColumn(columns, word);
  if (column != nullptr) return column;
  std::string names;
  for (const Column* const each : columns) names += std::string(" ") + each->name;
  throw UsageError("--sort: '" + ValidUtf8(word) + "' is none of" + names +
                   "; what is measured needs --measure");
}

TopOptions ReadOptions(const Input& in) {
  const bool measured = in.Has("--measure");
  TopOptions options{.interval = IntervalOf(in),
                     .limit = in.Has("--once") ? 1 : LimitOf(in, "--count"),
                     .columns = ColumnsOf(measured),
                     .measured = measured};
  options.order = {ReadSort(in.Get("--sort"), options.columns), in.Has("--reverse")};
  return options;
}

void CheckTimeout(const Context& context, RunLoop& loop) {
  const auto longest = context.daemon.wait();
  if (loop.InFlight() < longest) return;
  throw Failure(kTimedOut,
                "kvoxd did not answer within " +
                    FormatText<32>("%g", std::chrono::duration<double>(longest).count()) +
                    " s; see whether it hangs, and restart it");
}

/// One refresh as plain rows.
/// `log` is the flight log that the rows come from; null for those of the daemon.
void Print(const Context& context, const TopOptions& options, const TopModel& model, bool first,
           const flight::FlightView* log = nullptr) {
  std::vector<Row> rows;
  if (model.present()) rows = model.rows();
  Sort(rows, options.order);
  std::vector<std::string> lines;
  if (!first) lines.emplace_back();
  lines.push_back(log == nullptr ? model.Head({})
                                 : "flight log of " + log->program + ", as it was left");
  if (model.present()) lines.push_back(HeaderLine(options.columns));
  Json records = Json::array();
  for (const Row& row : rows) {
    lines.push_back(LineOf(options.columns, row));
    records.push_back(RecordOf(row));
  }
  if (!first && context.out.format() == Format::kShort) PrintOut("\n");
  context.out.List(lines, "rows", records, model.unparsed(),
                   {{"time", UtcTime()}, {"daemon", log == nullptr && model.present()}});
}

/// The buffers of a flight log, without a daemon.
int OfSavedLog(const Context& context, const TopOptions& options) {
  const flight::FlightView log = OpenFlight(context.in, {.packets = false, .events = false});
  Sample sample;
  sample.flight = log;
  for (const auto& stream : log.streams) {
    sample.buffers.push_back(
        {.name = stream.name, .direction = Direction::kTapOut, .enabled = stream.on});
  }
  for (const auto& inject : log.injects) {
    if (inject.name.empty()) continue;
    sample.buffers.push_back(
        {.name = inject.name, .direction = Direction::kInject, .enabled = log.live});
  }
  TopModel model;
  model.Update({.sample = std::move(sample)}, LocalTime());
  Print(context, options, model, true, &log);
  return kDone;
}

End InBatch(const Context& context, const TopOptions& options, const SignalFd& signals) {
  RunLoop loop(signals, {.measurements = options.measured}, options.interval);
  TopModel model;
  for (int count = 0; options.limit == 0 || count < options.limit;) {
    LoopEvent event = loop.Next(RunLoop::Clock::time_point::max());
    if (event.signal != 0) return {.signal = event.signal};
    if (event.closed) return {};
    CheckTimeout(context, loop);
    if (!event.result) continue;
    const bool was_present = model.present() || count == 0;
    model.Update(std::move(*event.result), LocalTime());
    if (was_present && !model.present()) context.out.Message(model.error());
    const SignalFd::Unblocked scope(signals);
    Print(context, options, model, count == 0);
    ++count;
  }
  return {.status = model.present() ? kDone : kNoDaemon};
}

/// The full-screen view.
class FullScreen {
 public:
  FullScreen(const Context& context, const TopOptions& options, const SignalFd& signals)
      : context_(context),
        options_(options),
        loop_(signals, {.measurements = options.measured}, options.interval, STDIN_FILENO),
        view_{.order = options.order} {}

  End Run() {
    while (options_.limit == 0 || count_ < options_.limit) {
      LoopEvent event = loop_.Next(RunLoop::Clock::time_point::max());
      if (event.closed) return {};
      if (event.signal != 0 && !HandleSignal(event.signal)) return {.signal = event.signal};
      if (event.input && !TakeKeys()) return {};
      if (event.result) {
        model_.Update(std::move(*event.result), LocalTime());
        ++count_;
      }
      CheckTimeout(context_, loop_);
      Draw();
    }
    return {.status = model_.present() ? kDone : kNoDaemon};
  }

 private:
  /// False when the signal ends the program.
  bool HandleSignal(int signal) {
    if (signal != SIGTSTP && signal != SIGCONT && signal != SIGWINCH) return false;
    if (signal != SIGWINCH) screen_.Release();  // another program may have changed it
    if (signal == SIGTSTP) RaiseDefault(signal);
    screen_.Resize();
    return true;
  }

  /// False when the user wants to leave.
  bool TakeKeys() {
    const int rows = static_cast<int>(model_.rows().size());
    for (int key = screen_.TakeKey(); key != -1; key = screen_.TakeKey()) {
      if (key == 'q' && !view_.typing) return false;
      if (key == ' ' && !view_.typing) loop_.Refresh();
      if (key == kCtrlL) screen_.Release();  // the next frame redraws everything
      ApplyKey(key, options_.columns, rows, PageOf(screen_.size()), view_);
    }
    return true;
  }

  /// The rows are not those of now.
  bool Stale() { return count_ > 0 && (!model_.present() || loop_.InFlight() >= TopModel::kSlow); }

  void Draw() {
    screen_.Show(DrawFrame(model_.Head(loop_.InFlight()), model_.rows(), Stale(), options_.columns,
                           screen_.size(), view_));
  }

  const Context& context_;
  const TopOptions& options_;
  RunLoop loop_;
  Screen screen_;  // restored before waiting for the daemon
  TopModel model_;
  View view_;
  int count_ = 0;
};

}  // namespace

int Top(const Context& context) {
  const TopOptions options = ReadOptions(context.in);
  if (context.in.Has("--flight")) return OfSavedLog(context, options);
  const bool batch = context.in.Has("--batch") || context.in.Has("--once") ||
                     context.out.format() != Format::kText;
  if (!batch) RequireTerminal();
  const SignalFd signals = batch ? SignalFd({SIGINT, SIGTERM, SIGHUP})
                                 : SignalFd({SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2,
                                             SIGXCPU, SIGTSTP, SIGCONT, SIGWINCH});
  context.daemon.kvox();  // a daemon must be running at first
  const End end =
      batch ? InBatch(context, options, signals) : FullScreen(context, options, signals).Run();
  return end.signal != 0 ? EndBySignal(end.signal) : end.status;
}

}  // namespace kvox::client
