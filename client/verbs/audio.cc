// Audio at any point: recording, playing, looking at it.

#include <algorithm>
#include <filesystem>
#include <optional>
#include <set>
#include <utility>

#include "client/audio/listen.h"
#include "client/audio/meter.h"
#include "client/audio/play.h"
#include "client/audio/record.h"
#include "client/audio/verify.h"
#include "client/system/files.h"
#include "client/system/standard_input.h"
#include "client/verbs/shared.h"
#include "kvox/common/device_names.h"
#include "kvox/common/fixed_text.h"
#include "libkvox/calls/arguments.h"

namespace kvox::client {
namespace {

constexpr float kMostGain_dB = 60;

double Seconds(const std::string& word) {
  if (word.empty()) return 0;
  const auto seconds = ParseFloat(word);
  if (seconds && *seconds > 0 && *seconds <= 1e9f) return static_cast<double>(*seconds);
  throw UsageError("--seconds: '" + word + "' is not a number from above 0 to 1000000000");
}

/// A word that names a file rather than a point: "-", a path, or anything with an ending that is no
/// index.
bool IsFile(const std::string& word) {
  if (word == kPipe || word.find('/') != word.npos) return true;
  const size_t dot = word.rfind('.');
  return dot != word.npos && word.find_first_not_of("0123456789", dot + 1) != word.npos;
}

/// A word of the form that points have, whether or not there is one: "imic.0", "2:imic.0",
/// "tapout20".
bool LooksLikePoint(const std::string& word) {
  const std::string name = word.substr(0, word.find_last_not_of("0123456789") + 1);
  return name.size() < word.size() &&
         (name.ends_with('.') || name == kTapOutBufferPrefix || name == kInjectBufferPrefix);
}

/// Asks the daemon about a name that may be a processor, or a tap point without its index.
bool IsObject(Daemon& daemon, const std::string& word) {
  if (!ParseTapWord(word)) return false;
  const auto processors = QueryProcessors(daemon).rows;
  if (std::ranges::count(processors, word, &Processor::id) > 0) return true;
  try {
    LookUpTap(daemon, word);
    return true;
  } catch (const Failure& failure) {
    if (failure.status() != kNoObject) throw;
    return false;
  }
}

/// Whether the last of several words is the file. Throws Failure for one that is nothing.
bool LastIsFile(Daemon& daemon, const std::string& word, const std::string& format) {
  if (LooksLikePoint(word)) return false;
  if (!format.empty()) return true;
  if (IsObject(daemon, word)) return false;
  throw UsageError("FILE: '" + ValidUtf8(word) +
                   "' has no ending, and is no point; end it with .wav, .flac or .raw, or say "
                   "with --format what to write");
}

std::vector<std::string> Points(const std::vector<std::string>& words) {
  if (words.empty()) throw UsageError("POINT is missing; 'kvoxctl tap list' shows tap points");
  std::set<std::string> seen;
  for (const std::string& word : words) {
    if (seen.insert(word).second) continue;
    throw UsageError("POINT: " + ValidUtf8(word) + " is named twice; once is enough");
  }
  return words;
}

/// "heard.wav" and "2:imic.0" make "heard-2-imic.0.wav".
std::string NameFor(const std::string& path, const std::string& point) {
  const std::filesystem::path whole(path);
  std::string name = point;
  std::ranges::replace(name, ':', '-');
  return (whole.parent_path() / (whole.stem().string() + "-" + name + whole.extension().string()))
      .string();
}

std::vector<RecordingPlan> PlanFiles(const Context& context) {
  std::vector<std::string> words = context.in.All("POINT");
  const std::string& format = context.in.Get("--format");
  std::string path;
  const auto is_file = [&](const std::string& last) {
    return IsFile(last) || (words.size() > 1 && LastIsFile(context.daemon, last, format));
  };
  if (!words.empty() && is_file(words.back())) {
    path = words.back();
    words.pop_back();
  }
  const std::vector<std::string> points = Points(words);
  if (path.empty()) {
    path = points.front() + "." + (format.empty() ? "wav" : format);
    std::ranges::replace(path, ':', '-');
  }
  const FileKind kind = KindOfFile(path, format);
  if (!context.in.Has("--each")) return {{path, kind, points}};
  if (path == kPipe) throw UsageError("--each: standard output is one file; name a file");
  std::vector<RecordingPlan> files;
  for (const std::string& point : points) files.push_back({NameFor(path, point), kind, {point}});
  return files;
}

/// Throws UsageError when one file would overwrite another.
void CheckDiffer(const RecordOptions& options) {
  for (auto file = options.files.begin(); file != options.files.end(); ++file) {
    if (file->path == kPipe) continue;
    if (!options.gaps_path.empty() && AreSameFile(options.gaps_path, file->path)) {
      throw UsageError("--gaps: '" + ValidUtf8(options.gaps_path) +
                       "' is the recording itself; name another file");
    }
    const auto same = std::find_if(options.files.begin(), file, [&](const RecordingPlan& other) {
      return AreSameFile(other.path, file->path);
    });
    if (same == file) continue;
    throw UsageError("--each: " + ValidUtf8(same->points.front()) + " and " +
                     ValidUtf8(file->points.front()) + " would both be written to '" +
                     ValidUtf8(file->path) + "'; leave one out");
  }
}

int RunRecord(const Context& context) {
  const RecordOptions options{.files = PlanFiles(context),
                              .seconds = Seconds(context.in.Get("--seconds")),
                              .gaps_path = context.in.Get("--gaps")};
  // Before anything is set up or taken from another client.
  CheckDiffer(options);
  for (const RecordingPlan& file : options.files) {
    if (file.path != kPipe) CheckWritable(file.path);
  }
  if (!options.gaps_path.empty()) CheckWritable(options.gaps_path);
  return Record(context.daemon, options, context.out);
}

SoundReader OpenToPlay(const std::string& path, bool loop, std::optional<StandardInput>& input) {
  try {
    if (path != kPipe) return SoundReader(path);
    if (loop) throw UsageError("--loop: standard input can be read only once; name a file");
    input.emplace();
    return SoundReader(input->path(), SoundReader::Kind::kAlsoPipes);
  } catch (const SoundFileError& error) {
    throw UsageError(std::string("FILE: ") + error.what());
  }
}

/// "play FILE POINT"; as it was before there were points other than relays, "play POINT FILE".
int RunPlay(const Context& context) {
  std::string file = context.in.Get("FILE");
  std::string point = context.in.Get("POINT");
  if (!IsFile(file) && IsFile(point)) std::swap(file, point);
  const PlayOptions options{
      .loop = context.in.Has("--loop"),
      .convert = !context.in.Has("--no-convert"),
      .gain_db = context.in.Has("--gain") ? static_cast<double>(context.in.Decimal("--gain")) : 0};
  if (std::abs(options.gain_db) > static_cast<double>(kMostGain_dB)) {
    throw UsageError("--gain: it is -60 to 60 dB");
  }
  Interrupts interrupts;
  std::optional<StandardInput> input;  // outlives the reader
  return Play(context.daemon, point, OpenToPlay(file, options.loop, input), options, interrupts,
              context.out);
}

int RunVerify(const Context& context) {
  return Verify(context.in.Get("FILE"), context.in.Get("--gaps"), context.out);
}

int RunMeter(const Context& context) {
  return Meter(context.daemon,
               {.points = Points(context.in.All("POINT")),
                .seconds = Seconds(context.in.Get("--seconds")),
                .once = context.in.Has("--once"),
                .fail_on_clip = context.in.Has("--fail-on-clip")},
               context.out);
}

int RunListen(const Context& context) {
  return Listen(context.daemon, context.in.Get("POINT"), context.out);
}

const char* PointNotes() {
  return "A point is a tap point (imic.0, 2:imic.0), a tap-out buffer (tapout20) or a processor: "
         "of a\n"
         "relay, what its client gets; of another, what it reads. Where there is no relay, a "
         "temporary\n"
         "one is made, whose name begins with ~, and taken down at the end. If kvoxctl is killed, "
         "the\n"
         "next one removes it. A relay has one client: a new one takes the audio over, and ends "
         "the\n"
         "session of the earlier one.\n";
}

const char* RecordNotes() {
  static const std::string notes =
      std::string(PointNotes()) +
      "Several points go side by side into one file, aligned by the co-processor's stamps. What "
      "is\n"
      "missing is silent, and listed: at the end, as marks in a WAV file, and by --gaps. FILE "
      "ends\n"
      "with .wav, .flac or .raw; with --format, the last of several words is FILE whatever its "
      "name,\n"
      "unless it looks like imic.0 or tapout20. - is standard output; POINT.wav when not given.\n";
  return notes.c_str();
}

const char* PlayNotes() {
  return "A point is a tap point (genp.0, 2:genp.0), an inject buffer that one plays (inject0), or "
         "a\n"
         "relay. Where there is no relay, a temporary one is made and taken down at the end. The\n"
         "stream of the tap point sets the pace.\n";
}

}  // namespace

std::vector<Verb> AudioVerbs() {
  const Argument points = {"POINT", Kind::kPoint, "Tap point, tap-out buffer or processor",
                           Arity::kMany};
  const Option seconds = {"--seconds", "SECONDS", Kind::kNumber, "End after so much audio"};
  return {
      {"record", "Record the audio of one or more points to a file, until Ctrl-C", RunRecord,
       "record imic.0 heard.wav",
       Arguments{{"POINT", Kind::kPoint, "Tap points, tap-out buffers or processors; then the FILE",
                  Arity::kMany}},
       Options{seconds,
               {"--format",
                "FORMAT",
                Kind::kChoice,
                "wav, flac or raw, whatever the file's name",
                {"wav", "flac", "raw"}},
               {"--each", nullptr, Kind::kText, "A file for each point: FILE-POINT.wav"},
               {"--gaps", "LIST", Kind::kFile, "List what is missing in this file, as JSON"}},
       RecordNotes, VerbKind::kStream},
      {"play", "Play a sound file at a point, to its end or until Ctrl-C", RunPlay,
       "play speech.wav genp.0",
       Arguments{{"FILE", Kind::kFile, "Sound file, or - for standard input"},
                 {"POINT", Kind::kPoint, "Tap point, inject buffer or relay"}},
       Options{{"--loop", nullptr, Kind::kText, "Begin again at the end"},
               {"--gain", "DB", Kind::kNumber, "Louder or softer, -60 to 60 dB (0)"},
               {"--no-convert", nullptr, Kind::kText,
                "Refuse a file of another sample rate or number of channels"}},
       PlayNotes, VerbKind::kStream},
      {"verify", "Check a recording against the list of its gaps", RunVerify, "verify heard.wav",
       Arguments{{"FILE", Kind::kFile, "Sound file that record has written"}},
       Options{{"--gaps", "LIST", Kind::kFile, "The list; the marks in the WAV file if not given"}},
       nullptr, VerbKind::kFileCheck},
      {"meter", "Show the levels of one or more points, until Ctrl-C", RunMeter,
       "meter imic.0 sspk.0", Arguments{points},
       Options{seconds,
               {"--once", nullptr, Kind::kText, "One reading, of a second"},
               {"--fail-on-clip", nullptr, Kind::kText,
                "End with status 7 once a sample is at full scale"}},
       PointNotes, VerbKind::kStream},
      {"listen", "Hear a point through this machine's sound system, until Ctrl-C", RunListen,
       "listen imic.0",
       Arguments{{"POINT", Kind::kPoint, "Tap point, tap-out buffer or processor"}}, Options{},
       PointNotes, VerbKind::kStream},
  };
}

}  // namespace kvox::client
