#include "client/audio/verify.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "client/audio/gap_list.h"
#include "client/output/json.h"
#include "client/system/files.h"
#include "kvox/common/fixed_text.h"
#include "kvox/sound/sound_file.h"
#include "libkvox/units.h"

namespace kvox::client {
namespace {

constexpr size_t kLongestList = 64 << 20;
constexpr size_t kFramesAtOnce = 4096;

std::vector<ListedGap> ReadList(const std::string& path, const std::string& gaps_path) {
  if (gaps_path.empty() && !path.ends_with(".wav")) {
    throw UsageError("FILE: only .wav files have the list inside; name it with --gaps LIST");
  }
  if (gaps_path.empty()) return GapsOf(ReadCues(path));
  const auto bytes = ReadFile(gaps_path, kLongestList);
  return ParseGaps(std::string(bytes.begin(), bytes.end()), path);
}

/// What is wrong with a gap, or "".
std::string Check(SoundReader& file, const ListedGap& listed) {
  const uint64_t end = listed.gap.position + listed.gap.frames;
  if (listed.gap.position > end || end > file.frame_count()) return "ends behind the file";
  if (listed.first_channel >= file.channels() ||
      listed.channels > file.channels() - listed.first_channel) {
    return "names channels that the file does not have";
  }
  std::vector<double> samples(kFramesAtOnce * file.channels());
  file.Seek(listed.gap.position);
  for (uint64_t at = listed.gap.position; at < end;) {
    const auto wanted = static_cast<size_t>(std::min<uint64_t>(kFramesAtOnce, end - at));
    const size_t got = file.ReadDoubles(std::span(samples).first(wanted * file.channels()));
    if (got == 0) return "cannot be read";
    for (size_t i = 0; i < got; ++i) {
      const auto frame =
          std::span(samples).subspan(i * file.channels() + listed.first_channel, listed.channels);
      if (std::ranges::any_of(frame, [](double sample) { return sample != 0; })) {
        return "holds audio";
      }
    }
    at += got;
  }
  return "";
}

int Run(const std::string& path, const std::string& gaps_path, const Printer& out) {
  SoundReader file(path);
  const std::vector<ListedGap> gaps = ReadList(path, gaps_path);
  std::vector<std::string> lines;
  uint64_t missing = 0;
  int wrong = 0;
  for (const ListedGap& listed : gaps) {
    const std::string problem = Check(file, listed);
    wrong += problem.empty() ? 0 : 1;
    missing += listed.gap.frames;
    lines.push_back("  " + TextOf(listed, file.sample_rate()) +
                    (problem.empty() ? "" : "; WRONG: it " + problem));
  }
  const double seconds = static_cast<double>(file.frame_count()) / file.sample_rate();
  const double missing_s = static_cast<double>(missing) / file.sample_rate();
  lines.insert(lines.begin(), FormatText<64>("%.3f s, ", seconds) + Counted(gaps.size(), "gap") +
                                  ", " + (missing == 0 ? "nothing" : TimeText(missing_s * 1e9)) +
                                  " missing");
  out.One(lines, {{"file", path},
                  {"seconds", std::round(seconds * 1000) / 1000},
                  {"missing_seconds", missing_s},
                  {"wrong", wrong},
                  {"gaps", RecordsOf(gaps)}});
  if (wrong > 0) {
    out.Message(path + ": " + Counted(static_cast<uint64_t>(wrong), "listed gap") +
                " cannot be its own; was it changed after it was recorded?");
    return kRefused;
  }
  return gaps.empty() ? kDone : kGaps;
}

}  // namespace

int Verify(const std::string& path, const std::string& gaps_path, const Printer& out) {
  try {
    return Run(path, gaps_path, out);
  } catch (const SoundFileError& error) {
    throw UsageError(std::string("FILE: ") + error.what());
  }
}

}  // namespace kvox::client
