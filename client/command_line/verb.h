// The verbs of kvoxctl as one table. The command line is parsed with it; help, manual page and
// completion are generated from it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "client/command_line/input.h"
#include "client/output/printer.h"
#include "libkvox/calls/daemon.h"
#include "libkvox/errors.h"

namespace kvox::client {

/// What a word on the command line names.
enum class Kind {
  kText,
  kNumber,
  kChoice,  // one of the choices
  kFile,
  kMethod,  // of the interface
  // From here on, an object that may not exist.
  kProcessor,
  kProcessorType,
  kTap,
  kCore,
  kTapOut,  // a tap-out buffer, or none
  kInject,  // an inject buffer, or none
  kBuffer,  // of either direction
  kPoint,   // a tap point, buffer or processor
  kUseCase,
  kParameter,
};

enum class Arity {
  kOnce,
  kOptional,
  kAnyNumber,
  kMany,          // once or more
  kEach,          // once or more; the verb runs for each, so it sees one
  kEachOptional,  // the same, or none
};

struct Argument {
  const char* name;  // "PROCESSOR"; unique within the verb
  Kind kind;
  const char* help;
  Arity arity = Arity::kOnce;
  std::vector<const char*> choices = {};  // in addition to names, except for kChoice
};

struct Option {
  const char* name;   // "--seconds"
  const char* value;  // "SECONDS"; nullptr for a flag
  Kind kind;          // of the value
  const char* help;
  std::vector<const char*> choices = {};
  const char* letter = nullptr;  // "-n"
};

struct Context {
  const Input& in;
  const Printer& out;
  Daemon& daemon;
};

/// How a verb runs, which determines its exit statuses.
enum class VerbKind {
  kCommand,    // calls the daemon
  kStream,     // carries audio, and may end with kGaps
  kRawCall,    // takes all following words unparsed, including options
  kApply,      // calls the daemon with names from a file
  kWait,       // until an object exists, but no longer than --timeout
  kCheck,      // its status is the result of the check, whether or not a daemon runs
  kLocal,      // needs no daemon
  kFlight,     // reads the flight log
  kWhy,        // the same; kGaps when it shows losses
  kFileCheck,  // needs no daemon; kGaps when the file lacks something
};

using Arguments = std::vector<Argument>;
using Options = std::vector<Option>;

struct Verb {
  const char* words;  // "processor list"; one word for a verb without a noun
  const char* summary;
  /// Does the work, and returns the exit status. Throws Failure.
  int (*run)(const Context&);
  const char* example;  // without the program's name: "processor new pass"
  Arguments arguments = {};
  Options options = {};
  const char* (*notes)() = nullptr;  // more help
  VerbKind kind = VerbKind::kCommand;

  /// "processor"; "" for a verb of one word.
  std::string_view noun() const;
  /// "list"
  std::string_view name() const;
};

struct Noun {
  const char* name;
  const char* summary;
};

/// Whether an argument takes all words that are left.
inline bool TakesMany(Arity arity) {
  return arity >= Arity::kAnyNumber;
}
inline bool MayBeAbsent(Arity arity) {
  return arity != Arity::kOnce && arity != Arity::kMany && arity != Arity::kEach;
}

/// In the order in which help shows them.
const std::vector<Verb>& AllVerbs();
const std::vector<Noun>& AllNouns();

/// Options that every verb takes.
const std::vector<Option>& CommonOptions();

/// nullptr when there is none.
const Verb* FindVerb(std::string_view noun, std::string_view name);

/// The names of a noun's verbs; of those without a noun for "".
std::vector<std::string> VerbNames(std::string_view noun);

/// Runs the verb, for each word of an argument of which it takes one at a time. Returns the exit
/// status, of the first that failed. Throws Failure when there is only one, or the daemon is gone.
int RunVerb(const Verb& verb, const Context& context);

struct ExitRow {
  int status;
  const char* meaning;
};

/// How kvoxctl may end, and how one verb may.
const std::vector<ExitRow>& AllExits();
std::vector<ExitRow> ExitsOf(const Verb& verb);

// The rows of the table; verbs/ has a file for each.
std::vector<Verb> ProcessorVerbs();
std::vector<Verb> TapVerbs();
std::vector<Verb> BufferVerbs();
std::vector<Verb> UseCaseVerbs();
std::vector<Verb> ParameterVerbs();
std::vector<Verb> WaitVerbs();
std::vector<Verb> MonitorVerbs();
std::vector<Verb> StateVerbs();
std::vector<Verb> AudioVerbs();
std::vector<Verb> RouteVerbs();
std::vector<Verb> DoctorVerbs();
std::vector<Verb> FlightVerbs();
std::vector<Verb> CallVerbs();

}  // namespace kvox::client
