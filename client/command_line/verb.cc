#include "client/command_line/verb.h"

#include <algorithm>
#include <iterator>

namespace kvox::client {
namespace {

bool NamesObject(const Argument& argument) {
  return argument.kind >= Kind::kProcessor;
}

/// Exit statuses of a kind of verb, besides kDone, kWrongUsage and kFailed.
const std::vector<int>& StatusesOf(VerbKind kind) {
  static const std::vector<int> statuses[] = {
      /*kCommand*/ {kRefused, kNoDaemon, kNoObject, kNotAllowed, kTimedOut},
      /*kStream*/ {kRefused, kNoDaemon, kNoObject, kNotAllowed, kTimedOut, kGaps},
      /*kRawCall*/ {kRefused, kNoDaemon},
      /*kApply*/ {kRefused, kNoDaemon, kNoObject, kNotAllowed, kTimedOut},
      /*kWait*/ {kNotAllowed, kTimedOut},
      /*kCheck*/ {kRefused},
      /*kLocal*/ {},
      /*kFlight*/ {kNoDaemon, kNoObject},
      /*kWhy*/ {kNoDaemon, kNoObject, kGaps},
      /*kFileCheck*/ {kRefused, kGaps},
  };
  return statuses[static_cast<size_t>(kind)];
}

bool MayEndWith(const Verb& verb, int status) {
  if (status == kDone || status == kWrongUsage || status == kFailed) return true;
  if (status == kNoObject && verb.kind == VerbKind::kCommand) {
    return std::any_of(verb.arguments.begin(), verb.arguments.end(), NamesObject);
  }
  const std::vector<int>& statuses = StatusesOf(verb.kind);
  return std::find(statuses.begin(), statuses.end(), status) != statuses.end();
}

}  // namespace

std::string_view Verb::noun() const {
  const std::string_view text = words;
  return text.substr(0, text.find(' ') == text.npos ? 0 : text.find(' '));
}

std::string_view Verb::name() const {
  const std::string_view text = words;
  return text.substr(text.find(' ') + 1);  // all of it where there is none: npos + 1 is 0
}

const std::vector<Noun>& AllNouns() {
  static const std::vector<Noun> nouns = {
      {"processor", "Audio processors"},
      {"tap", "Tap points of the co-processor"},
      {"buffer", "Tap-out and inject buffers"},
      {"usecase", "Use cases: named set-ups"},
      {"param", "Parameters of processors"},
      {"io", "Reading and writing the buffers' devices"},
      {"capture", "Recording what passes through buffers"},
      {"wait", "Waiting until something exists"},
      {"flight", "What kvoxd has recorded of every packet"},
  };
  return nouns;
}

const std::vector<Verb>& AllVerbs() {
  static const std::vector<Verb> verbs = [] {
    std::vector<Verb> all;
    for (const auto rows :
         {ProcessorVerbs, TapVerbs, BufferVerbs, UseCaseVerbs, ParameterVerbs, WaitVerbs,
          MonitorVerbs, StateVerbs, AudioVerbs, RouteVerbs, DoctorVerbs, FlightVerbs, CallVerbs}) {
      std::ranges::move(rows(), std::back_inserter(all));
    }
    return all;
  }();
  return verbs;
}

const std::vector<Option>& CommonOptions() {
  static const std::vector<Option> options = {
      {"--json", nullptr, Kind::kText, "Print one JSON document on one line"},
      {"--short", nullptr, Kind::kText, "Print tab-separated columns, for lists"},
      {"--color",
       "WHEN",
       Kind::kChoice,
       "auto, always or never; NO_COLOR means never",
       {"auto", "always", "never"}},
      {"--timeout", "SECONDS", Kind::kNumber, "Longest wait for a reply, 0.001 to 86400 (300)"},
  };
  return options;
}

const Verb* FindVerb(std::string_view noun, std::string_view name) {
  const auto& verbs = AllVerbs();
  const auto found = std::find_if(verbs.begin(), verbs.end(), [&](const Verb& verb) {
    return verb.noun() == noun && verb.name() == name;
  });
  return found == verbs.end() ? nullptr : &*found;
}

std::vector<std::string> VerbNames(std::string_view noun) {
  std::vector<std::string> names;
  for (const Verb& verb : AllVerbs()) {
    if (verb.noun() == noun) names.emplace_back(verb.name());
  }
  return names;
}

int RunVerb(const Verb& verb, const Context& context) {
  const auto each = std::ranges::find_if(verb.arguments, [](const Argument& argument) {
    return argument.arity == Arity::kEach || argument.arity == Arity::kEachOptional;
  });
  if (each == verb.arguments.end() || context.in.All(each->name).size() < 2) {
    return verb.run(context);
  }
  int status = kDone;
  for (const std::string& word : context.in.All(each->name)) {
    Input one = context.in;
    one.words[each->name] = {word};
    int ended = kDone;
    try {
      ended = verb.run({.in = one, .out = context.out, .daemon = context.daemon});
    } catch (const Failure& failure) {
      if (failure.status() == kNoDaemon || failure.status() == kTimedOut) throw;
      context.out.Message(failure.what());
      ended = failure.status();
    }
    if (status == kDone) status = ended;
  }
  return status;
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
    const bool finding = row.status == kRefused &&
                         (verb.kind == VerbKind::kCheck || verb.kind == VerbKind::kFileCheck);
    exits.push_back(finding ? ExitRow{row.status, "something has failed"} : row);
  }
  return exits;
}

}  // namespace kvox::client
