#include "client/command_line/verb.h"

#include <algorithm>
#include <iterator>
#include <set>

namespace kvox::client {
namespace {

bool NamesObject(Kind kind) {
  constexpr Kind kPlain[] = {Kind::kText, Kind::kNumber, Kind::kChoice, Kind::kFile, Kind::kMethod};
  return std::find(std::begin(kPlain), std::end(kPlain), kind) == std::end(kPlain);
}

bool MayEndWith(const Verb& verb, int status) {
  switch (status) {
    case kRefused:
      return verb.manner != Manner::kAlone && verb.manner != Manner::kWaits;
    case kNoDaemon:
      return verb.manner != Manner::kAlone && verb.manner != Manner::kChecks &&
             verb.manner != Manner::kWaits;
    case kNoObject:
      if (verb.manner == Manner::kWaits) return false;
      if (verb.manner == Manner::kApplies) return true;
      return std::any_of(verb.arguments.begin(), verb.arguments.end(),
                         [](const Argument& argument) { return NamesObject(argument.kind); });
    case kNotAllowed:
    case kTimedOut:
      return verb.manner != Manner::kRaw && verb.manner != Manner::kChecks &&
             verb.manner != Manner::kAlone;
    case kGaps:
      return verb.manner == Manner::kStreams;
    default:
      return true;
  }
}

}  // namespace

const std::string& Input::Get(std::string_view name) const {
  static const std::string none;
  const std::vector<std::string>& all = All(name);
  return all.empty() ? none : all.front();
}

const std::vector<std::string>& Input::All(std::string_view name) const {
  static const std::vector<std::string> none;
  const auto found = words.find(name);
  return found == words.end() ? none : found->second;
}

const std::vector<Noun>& AllNouns() {
  static const std::vector<Noun> nouns = {
      {"processor", "Processors, which work on audio"},
      {"tap", "Tap points of the co-processor"},
      {"buffer", "Tap-out and inject buffers"},
      {"usecase", "Use cases: whole set-ups by name"},
      {"param", "Parameters of processors"},
      {"io", "Reading and writing of the buffers' devices"},
      {"capture", "Recording of what passes through buffers"},
      {"wait", "Waiting until something is there"},
  };
  return nouns;
}

const std::vector<Verb>& AllVerbs() {
  static const std::vector<Verb> verbs = [] {
    std::vector<Verb> all;
    for (const auto rows :
         {ProcessorVerbs, TapVerbs, BufferVerbs, ConnectionVerbs, UseCaseVerbs, ParameterVerbs,
          IoVerbs, CaptureVerbs, WaitVerbs, StatsVerbs, LiveVerbs, StateVerbs, AudioVerbs,
          DaemonVerbs, DoctorVerbs, CallVerbs, CompletionVerbs}) {
      auto some = rows();
      std::move(some.begin(), some.end(), std::back_inserter(all));
    }
    return all;
  }();
  return verbs;
}

const std::vector<Option>& CommonOptions() {
  static const std::vector<Option> options = {
      {"--json", nullptr, Kind::kText, "Answer with one JSON document on one line"},
      {"--short", nullptr, Kind::kText, "Answer with columns parted by tabs, for lists"},
      {"--color",
       "WHEN",
       Kind::kChoice,
       "auto, always or never; NO_COLOR means never",
       {"auto", "always", "never"}},
      {"--timeout", "SECONDS", Kind::kNumber, "Longest wait for an answer, 0.001 to 86400 (300)"},
  };
  return options;
}

const Verb* FindVerb(std::string_view noun, std::string_view name) {
  const auto& verbs = AllVerbs();
  const auto found = std::find_if(verbs.begin(), verbs.end(), [&](const Verb& verb) {
    return verb.noun == noun && verb.name == name;
  });
  return found == verbs.end() ? nullptr : &*found;
}

const std::vector<ExitRow>& AllExits() {
  static const std::vector<ExitRow> exits = {
      {kDone, "done"},
      {kRefused, "the daemon refused"},
      {kWrongUsage, "wrong usage; nothing was changed"},
      {kNoDaemon, "no daemon was reached, or it went away"},
      {kNoObject, "there is no object of that name"},
      {kNotAllowed, "the daemon's socket may not be used"},
      {kTimedOut, "timed out"},
      {kGaps, "audio was missed, or ended early"},
      {kFailed, "kvoxctl itself failed"},
  };
  return exits;
}

std::vector<ExitRow> ExitsOf(const Verb& verb) {
  std::vector<ExitRow> exits;
  for (const ExitRow& row : AllExits()) {
    if (!MayEndWith(verb, row.status)) continue;
    const bool tells = verb.manner == Manner::kChecks && row.status == kRefused;
    exits.push_back(tells ? ExitRow{row.status, "something has failed"} : row);
  }
  return exits;
}

}  // namespace kvox::client
