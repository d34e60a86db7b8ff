#include "client/audio/meter.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <utility>

#include "client/audio/level_meter.h"
#include "client/audio/session.h"
#include "client/output/json.h"
#include "kvox/common/fixed_text.h"

namespace kvox::client {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kRedraw = std::chrono::milliseconds(100);
constexpr auto kReading = std::chrono::seconds(1);
constexpr size_t kBarWidth = 40;

struct Source {
  std::unique_ptr<Receiver> receiver;
  LevelMeter meter = {};
};

class Session {
 public:
  Session(Daemon& daemon, const MeterOptions& options, const Printer& out)
      : options_(options),
        out_(out),
        redraws_(!options.once && out.format() == Format::kText && isatty(STDOUT_FILENO) == 1) {
    for (const std::string& point : options.points) {
      sources_.push_back(
          {std::make_unique<Receiver>(daemon, point, ReceiverOptions{.numbers = false})});
    }
  }

  int Run(Interrupts& interrupts) {
    const auto begin = Clock::now();
    auto next = begin + Period();
    while (!interrupts.Came()) {
      Listen();
      const auto now = Clock::now();
      if (now < next) continue;
      for (const Source& source : sources_) {
        progress_.Hint(source.receiver->point(), source.receiver->flows());
      }
      if (!std::ranges::all_of(sources_, HasAudio)) continue;
      const bool clipped = Show();
      if (options_.fail_on_clip && clipped) return kGaps;
      if (options_.once) return kDone;
      if (options_.seconds > 0 &&
          std::chrono::duration<double>(now - begin).count() >= options_.seconds) {
        return kDone;
      }
      next += std::max<Clock::duration>(Period(), now - next);
    }
    return kDone;
  }

 private:
  Clock::duration Period() const { return redraws_ ? Clock::duration(kRedraw) : kReading; }
  static bool HasAudio(const Source& source) { return source.meter.frames() > 0; }

  void Listen() {
    auto wait = kStep;
    for (Source& source : sources_) {
      while (const auto block =
                 source.receiver->Next(std::exchange(wait, std::chrono::milliseconds(0)))) {
        source.meter.Add(*block);
      }
    }
  }

  /// True when something has been clipped since the begin.
  bool Show() {
    std::vector<std::string> lines;
    Json records = Json::array();
    bool clipped = false;
    for (Source& source : sources_) {
      const auto levels = source.meter.Take();
      for (size_t i = 0; i < levels.size(); ++i) {
        const Level& level = levels[i];
        clipped = clipped || level.clipped > 0;
        lines.push_back(FormatText<32>("%-8s %zu ", source.receiver->point().c_str(), i + 1) +
                        BarOf(level, kBarWidth));
        records.push_back({{"point", source.receiver->point()},
                           {"channel", i + 1},
                           {"peak_dbfs", level.peak_dbfs},
                           {"rms_dbfs", level.rms_dbfs},
                           {"hold_dbfs", level.hold_dbfs},
                           {"clipped", level.clipped},
                           {"missing_frames", source.meter.missing()}});
      }
    }
    if (redraws_) {
      std::string text = drawn_ == 0 ? "" : "\x1b[" + std::to_string(drawn_) + "A";
      for (const std::string& line : lines) text += line + "\x1b[K\n";
      PrintOut(text);
      drawn_ = lines.size();
    } else {
      out_.List(lines, "levels", records);
    }
    return clipped;
  }

  const MeterOptions& options_;
  const Printer& out_;
  const bool redraws_;
  Progress progress_;
  std::vector<Source> sources_;
  size_t drawn_ = 0;  // lines
};

}  // namespace

int Meter(Daemon& daemon, const MeterOptions& options, const Printer& out) {
  Interrupts interrupts;
  return Session(daemon, options, out).Run(interrupts);
}

}  // namespace kvox::client
