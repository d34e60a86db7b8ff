#include "client/audio/play.h"

#include <cmath>
#include <optional>
#include <utility>
#include <vector>

#include "client/audio/session.h"
#include "client/output/json.h"
#include "kvox/common/fixed_text.h"
#include "libkvox/audio/sender.h"

namespace kvox::client {
namespace {

/// Seconds of what was sent.
double SecondsOf(const SendCounts& counts, const SendFormat& format) {
  if (format.block_frames == 0) return 0;
  return static_cast<double>(counts.blocks * format.block_frames) / format.format.sample_rate;
}

/// Until the end of the file, an interrupt, or the end of the audio, which throws Failure.
void Run(Sender& sender, PlaySource& source, SendFormat& format, Interrupts& interrupts,
         Progress& progress) {
  progress.Note("playing to " + sender.point() + "; Ctrl-C ends it");
  while (!sender.WaitForFormat(kStep, format)) {
    if (interrupts.Came()) return;
    progress.Hint(sender.point(), false);
  }
  source.ConvertTo(format.format);
  std::vector<std::byte> block(format.block_frames * format.format.FrameSize());
  while (source.Fill(block)) {
    while (!sender.Send(block, kStep)) {
      if (interrupts.Came()) return;
      const SendCounts counts = sender.counts();
      progress.Show(SecondsOf(counts, format), counts.missed);
    }
  }
  while (!interrupts.Came() && !sender.Drain(kStep)) {
  }
}

}  // namespace

int Play(Daemon& daemon, const std::string& point, SoundReader file, const PlayOptions& options,
         Interrupts& interrupts, const Printer& out) {
  Progress progress;
  PlaySource source(std::move(file), options);
  Sender sender(daemon, point);
  SendFormat format;
  std::optional<Failure> over;
  try {
    Run(sender, source, format, interrupts, progress);
  } catch (const Failure& failure) {
    if (failure.status() == kRefused) throw;
    progress.Note(failure.what());
    over = failure;
  } catch (const SoundFileError& error) {
    throw Failure(kRefused, error.what());
  }
  progress.Clear();
  const SendCounts counts = sender.counts();
  const double seconds = SecondsOf(counts, format);
  out.One({FormatText<128>("played %.3f s in %llu blocks, %llu missed", seconds,
                           static_cast<unsigned long long>(counts.blocks),
                           static_cast<unsigned long long>(counts.missed))},
          {{"seconds", std::round(seconds * 1000) / 1000},
           {"blocks", counts.blocks},
           {"missed_blocks", counts.missed}});
  if (over && over->status() == kNoDaemon) throw *over;
  return over || counts.missed > 0 ? kGaps : kDone;
}

}  // namespace kvox::client
