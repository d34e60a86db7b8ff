#include "client/audio/record.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <memory>
#include <optional>

#include "client/audio/session.h"
#include "client/output/json.h"
#include "client/system/files.h"
#include "kvox/common/fixed_text.h"

namespace kvox::client {
namespace {

constexpr size_t kGapsShown = 10;

/// A stream of one of the recordings.
struct Source {
  Recording& recording;
  size_t stream;
  std::unique_ptr<Receiver> receiver;
  std::optional<Failure> over = {};
};

/// What `run` throws.
template <typename Run>
std::optional<Failure> FailureOf(Run run) {
  try {
    run();
    return std::nullopt;
  } catch (const Failure& failure) {
    return failure;
  } catch (const SoundFileError& error) {
    return Failure(kFailed, error.what());
  }
}

void Note(const std::optional<Failure>& failure, std::optional<Failure>& first) {
  if (!first) first = failure;
}

class Session {
 public:
  Session(Daemon& daemon, const RecordOptions& options, Interrupts& interrupts)
      : options_(options) {
    recordings_.reserve(options.files.size());
    for (const RecordingPlan& plan : options.files) {
      recordings_.push_back(std::make_unique<Recording>(
          plan, options.seconds, [&interrupts] { return interrupts.Came(); }));
      for (size_t i = 0; i < plan.points.size(); ++i) {
        sources_.push_back(
            {*recordings_.back(), i, std::make_unique<Receiver>(daemon, plan.points[i])});
      }
    }
  }

  /// Until the end. Throws Failure and SoundFileError.
  void Run(Interrupts& interrupts) {
    progress_.Note("recording from " + Points() + "; Ctrl-C ends it");
    while (!interrupts.Came()) {
      for (Source& source : sources_) Take(source);
      if (Write()) break;
      progress_.Show(recordings_.front()->seconds(), missed());
      for (const Source& source : sources_) {
        progress_.Hint(source.receiver->point(), source.receiver->flows());
      }
    }
    for (const auto& recording : recordings_) recording->track().EndSilent();
    Write();
    progress_.Clear();
    for (const auto& recording : recordings_) recording->CheckRoom();
  }

  /// Leaves the points, then completes the files; all of them, whatever fails. Returns the first
  /// failure.
  std::optional<Failure> Close() {
    std::optional<Failure> failed;
    for (Source& source : sources_) Note(FailureOf([&] { source.receiver->Leave(); }), failed);
    if (over()) failed.reset();  // said already
    for (const auto& recording : recordings_) {
      Note(FailureOf([&] { recording->Close(); }), failed);
    }
    Note(FailureOf([&] { WriteGaps(); }), failed);
    return failed;
  }

  /// Whether there is anything to report.
  bool has_audio() const {
    return std::ranges::any_of(recordings_, [](const auto& it) { return it->seconds() > 0; });
  }

  void WriteGaps() const {
    if (options_.gaps_path.empty()) return;
    const std::string text = AsJson(Json{{"schema", 1}, {"files", Files()}}) + "\n";
    const UniqueFd file = OpenToReplace(options_.gaps_path);
    if (!WriteAll(file.get(), text.data(), text.size())) {
      throw SoundFileError("'" + options_.gaps_path + "' cannot be written");
    }
  }

  /// Prints the summary.
  void Report(const Printer& out) const {
    double seconds = 0;
    std::vector<std::string> lines;
    for (const auto& recording : recordings_) {
      seconds = std::max(seconds, recording->seconds());
      const auto gaps = recording->gaps();
      for (size_t i = 0; i < gaps.size() && i < kGapsShown; ++i) {
        lines.push_back("  " + TextOf(gaps[i], recording->sample_rate()));
      }
      if (gaps.size() <= kGapsShown) continue;
      lines.push_back("  and " + std::to_string(gaps.size() - kGapsShown) +
                      " more; 'kvoxctl verify' and --gaps list all");
    }
    lines.insert(lines.begin(), FormatText<128>("recorded %.3f s in %llu blocks, %llu missed",
                                                seconds, static_cast<unsigned long long>(blocks()),
                                                static_cast<unsigned long long>(missed())));
    const bool piped = options_.files.front().path == kPipe;
    if (piped) {
      for (const std::string& line : lines) fputs((line + "\n").c_str(), stderr);
      return;
    }
    out.One(lines, {{"seconds", std::round(seconds * 1000) / 1000},
                    {"blocks", blocks()},
                    {"missed_blocks", missed()},
                    {"files", Files()}});
  }

  uint64_t missed() const {
    uint64_t missed = 0;
    for (const auto& recording : recordings_) missed += recording->track().missed_blocks();
    return missed;
  }

  /// The worst end of a stream; none when all still flow.
  std::optional<Failure> over() const {
    for (const Source& source : sources_) {
      if (source.over) return source.over;
    }
    return std::nullopt;
  }

 private:
  /// Takes what has come; waits a little for the first stream.
  void Take(Source& source) {
    auto wait = &source == &sources_.front() ? kStep : std::chrono::milliseconds(0);
    try {
      while (!source.over && !source.recording.full()) {
        auto block = source.receiver->Next(std::exchange(wait, std::chrono::milliseconds(0)));
        if (!block) return;
        source.recording.track().Add(source.stream, *std::move(block));
        if (source.recording.track().ready() > Recording::kFramesAtOnce) return;
      }
    } catch (const Failure& failure) {
      if (failure.status() == kWrongUsage) throw;
      progress_.Note(failure.what());
      source.over = failure;
      source.recording.track().End(source.stream);
    }
  }

  /// True when all files have what they can get.
  bool Write() {
    bool done = true;
    for (const auto& recording : recordings_) {
      done = (recording->Write() || recording->track().ended()) && done;
    }
    return done;
  }

  std::string Points() const {
    std::string points;
    for (const Source& source : sources_) {
      points += (points.empty() ? "" : ", ") + source.receiver->point();
    }
    return points;
  }

  uint64_t blocks() const {
    uint64_t blocks = 0;
    for (const auto& recording : recordings_) blocks += recording->track().blocks();
    return blocks;
  }

  Json Files() const {
    Json files = Json::array();
    for (const auto& recording : recordings_) files.push_back(recording->ToJson());
    return files;
  }

  const RecordOptions& options_;
  Progress progress_;
  std::vector<std::unique_ptr<Recording>> recordings_;
  std::vector<Source> sources_;
};

}  // namespace

int Record(Daemon& daemon, const RecordOptions& options, const Printer& out) {
  Interrupts interrupts;
  Session session(daemon, options, interrupts);
  std::optional<Failure> failed = FailureOf([&] { session.Run(interrupts); });
  Note(session.Close(), failed);
  if (session.has_audio() || !(failed || session.over())) session.Report(out);
  if (failed) throw *failed;
  const auto over = session.over();
  if (over && (over->status() == kNoDaemon || !session.has_audio())) throw *over;
  return over || session.missed() > 0 ? kGaps : kDone;
}

}  // namespace kvox::client
