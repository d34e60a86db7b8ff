// export and apply: a daemon's state as a file.

#include "client/command_line/verb.h"
#include "client/output/json.h"
#include "client/state/apply.h"
#include "client/state/state_file.h"
#include "client/system/files.h"
#include "kvox/common/command_tables.h"

namespace kvox::client {
namespace {

constexpr size_t kLongestFile = 1 << 20;

void ReportAbsence(const Context& context, const std::vector<int>& cores) {
  if (!cores.empty()) context.out.Message(AbsenceOf(cores));
}

int Export(const Context& context) {
  const Snapshot snapshot = ReadSnapshot(context.daemon);
  PrintUnchanged(context.out.json() ? AsJson(StateAsJson(snapshot)) + "\n" : WriteState(snapshot));
  ReportAbsence(context, snapshot.missing_cores.absent);
  if (const Omitted omitted = OmittedFrom(snapshot); !omitted.empty()) {
    context.out.Message(omitted.Text());
  }
  const std::string gaps = GapsOf(snapshot);
  if (gaps.empty()) return kDone;
  context.out.Message("the file is not complete: " + gaps);
  return kRefused;
}

std::string ReadText(const std::string& path) {
  const auto bytes = path == "-" ? ReadStandardInput(kLongestFile) : ReadFile(path, kLongestFile);
  return std::string(bytes.begin(), bytes.end());
}

std::string Origin(const std::string& path) {
  return path == "-" ? "standard input" : path;
}

void ReportSilence(const Context& context, const std::vector<int>& cores) {
  if (!cores.empty()) context.out.Message("tap points were left alone: " + SilenceOf(cores));
}

int Compare(const Context& context, const std::string& path, bool keep) {
  const Snapshot snapshot = ReadSnapshot(context.daemon);
  if (!CanBeTrusted(snapshot)) throw Failure(kRefused, "nothing was compared: " + GapsOf(snapshot));
  const State actual = StateOf(snapshot);
  const State wanted = Complete(ReadState(ReadText(path), Origin(path), snapshot), actual, keep);
  std::vector<std::string> lines;
  Json records = Json::array();
  for (const Difference& difference : Differences(wanted, actual)) {
    lines.push_back(difference.object + ": " + difference.property + ": wanted " +
                    difference.wanted + ", actual " + difference.actual);
    records.push_back({{"object", difference.object},
                       {"property", difference.property},
                       {"wanted", difference.wanted},
                       {"actual", difference.actual}});
  }
  if (lines.empty()) lines.emplace_back("nothing differs");
  context.out.List(lines, "differences", records);
  ReportAbsence(context, snapshot.missing_cores.absent);
  ReportSilence(context, snapshot.missing_cores.silent);
  return records.empty() ? kDone : kRefused;
}

/// Prints what was done; returns the exit status.
int ReportOutcome(const Context& context, const std::string& origin, const Outcome& outcome) {
  std::vector<std::string> lines;
  Json records = Json::array();
  for (const auto* steps : {&outcome.done, &outcome.left}) {
    const bool done = steps == &outcome.done;
    for (const Step& step : *steps) {
      lines.push_back((done ? "done: " : "not done: ") + Describe(step));
      records.push_back({{"step", Describe(step)}, {"done", done}});
    }
  }
  if (lines.empty()) lines.emplace_back("nothing to do");
  context.out.List(lines, "steps", records);
  ReportAbsence(context, outcome.missing_cores.absent);
  ReportSilence(context, outcome.missing_cores.silent);
  const std::string next = "; 'kvoxctl apply --dry-run' shows what differs";
  if (outcome.status != kDone) {
    const std::string failed = outcome.left.empty()
                                   ? outcome.cause
                                   : Describe(outcome.left.front()) + ": " + outcome.cause +
                                         "; the steps before it are done, the others are not";
    context.out.Message(failed + next);
    return outcome.status;
  }
  if (outcome.differences.empty()) return kDone;
  const Difference& first = outcome.differences.front();
  context.out.Message(first.object + ": " + first.property + " is " + first.actual + " though " +
                      origin + " wants " + first.wanted +
                      " and the daemon accepted it; somebody else may have changed it" + next);
  return kRefused;
}

int ApplyFile(const Context& context) {
  const std::string& path = context.in.Get("FILE");
  const bool keep = context.in.Has("--keep");
  if (context.in.Has("--dry-run")) return Compare(context, path, keep);
  return ReportOutcome(context, Origin(path),
                       Apply(ReadText(path), Origin(path), keep, context.daemon));
}

const char* ApplyNotes() {
  return "'kvoxctl export --help' describes the file. What is not in it is removed: processors "
         "are\n"
         "deleted, tap points disabled and unbound, buffers stopped; --keep leaves them as they "
         "are.\n"
         "Tap points in it are set, bound and switched in any case: after its restart the daemon "
         "does\n"
         "not know what the co-processor still has.\n"
         "Nothing is done while no core of the co-processor answers; while some do not, their tap\n"
         "points are left alone.\n";
}

const char* FileNotes() {
  static const std::string notes =
      "The file is TOML; keys without a * may be left out:\n"
      "  schema*                1\n"
      "  use_cases              list of names: AREL_TELE, the only use case that reports its "
      "state\n"
      "  running                list of names: tap-out buffers that are read\n"
      "  [[processor]]          one for each processor:\n"
      "    id*, type*           texts of up to four characters\n"
      "    input, output        texts: names of a tap-out buffer and of an inject buffer\n"
      "    enabled              true or false (false)\n"
      "    passthrough_mode     true or false\n"
      "    test_mode            true or false\n"
      "    block_length_frames  " +
      std::string(kBlockLengthRange) +
      "\n"
      "    jitter_buffer_frames 0, or " +
      kJitterBufferRange +
      "\n"
      "  [[tap]]                one for each tap point that is bound or enabled:\n"
      "    name*                text: imic.0, or 2:imic.0 for core 2\n"
      "    tapout, inject       texts: names of buffers\n"
      "    enabled              true or false (false)\n"
      "    block_length_frames  1 to 2147483647\n"
      "    jitter_buffer_frames 0 to 32767; export does not know it\n"
      "A setting that is left out stays as it is; a buffer that is left out means none.\n";
  return notes.c_str();
}

}  // namespace

std::vector<Verb> StateVerbs() {
  return {
      {"export", "Write what the daemon is set to do as TOML, for apply", Export, "export",
       Arguments{}, Options{}, FileNotes},
      {"apply", "Make the daemon match a file that export has written", ApplyFile,
       "apply --dry-run phone.toml",
       Arguments{{"FILE", Kind::kFile, "The file, or - for standard input"}},
       Options{{"--dry-run", nullptr, Kind::kText,
                "Only show what differs, wanted and actual; exit status 1 when something does"},
               {"--keep", nullptr, Kind::kText, "Leave what the file does not name as it is"}},
       ApplyNotes, VerbKind::kApply},
  };
}

}  // namespace kvox::client
