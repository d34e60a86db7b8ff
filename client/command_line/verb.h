// The verbs of kvoxctl as one table, from which the command line is read, and of which help, manual
// pages and completion are made.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "client/calls/daemon.h"
#include "client/errors.h"
#include "client/output/printer.h"

namespace kvox::client {

/// What a word on the command line names.
enum class Kind {
  kText,
  kNumber,
  kChoice,  // one of the choices
  kFile,
  kProcessor,
  kProcessorType,
  kTap,
  kCore,
  kTapOut,  // a tap-out buffer, or none
  kInject,  // an inject buffer, or none
  kBuffer,  // of either direction
  kUseCase,
  kParameter,
  kMethod,  // of the interface
};

enum class Arity { kOnce, kOptional, kAnyNumber };

struct Argument {
  const char* name;  // "PROCESSOR"; unique within the verb
  Kind kind;
  const char* help;
  Arity arity = Arity::kOnce;
  std::vector<const char*> choices = {};  // beside names, for every kind but kChoice
};

struct Option {
  const char* name;   // "--seconds"
  const char* value;  // "SECONDS"; nullptr for a flag
  Kind kind;          // of the value
  const char* help;
  std::vector<const char*> choices = {};
};

/// The words that were given for a verb's arguments and options.
class Input {
 public:
  std::map<std::string, std::vector<std::string>, std::less<>> words;

  bool Has(std::string_view name) const { return !All(name).empty(); }

  /// The first word; "" when none was given.
  const std::string& Get(std::string_view name) const;
  const std::vector<std::string>& All(std::string_view name) const;
};

struct Context {
  const Input& in;
  const Out& out;
  Daemon& daemon;
};

/// What a verb's run is like; how it may end follows from that.
enum class Manner {
  kAsks,     // calls the daemon
  kStreams,  // carries audio, and may end with kGaps
  kRaw,      // takes all words behind it as they are, options too
  kApplies,  // calls the daemon with names from a file
  kWaits,    // until there is what it names, and no longer than it was told
  kChecks,   // its status tells what it has found, whatever the daemon does
  kAlone,    // needs no daemon
};

struct Verb {
  const char* noun;  // "processor"; "" for a verb of one word
  const char* name;  // "list"
  const char* summary;
  std::vector<Argument> arguments;
  std::vector<Option> options;
  const char* example;  // without the program's name: "processor new pass"
  /// Does the work, and answers the exit status. Throws Failure and UsageError.
  int (*run)(const Context&);
  const char* (*notes)() = nullptr;  // for the help, where the above does not tell all
  Manner manner = Manner::kAsks;

  /// "processor new"
  std::string Words() const { return *noun == '\0' ? name : std::string(noun) + " " + name; }
};

struct Noun {
  const char* name;
  const char* summary;
};

/// In the order in which help shows them.
const std::vector<Verb>& AllVerbs();
const std::vector<Noun>& AllNouns();

/// Options that every verb takes.
const std::vector<Option>& CommonOptions();

/// nullptr when there is none.
const Verb* FindVerb(std::string_view noun, std::string_view name);

struct ExitRow {
  int status;
  const char* meaning;
};

/// How kvoxctl may end, and how one verb may.
const std::vector<ExitRow>& AllExits();
std::vector<ExitRow> ExitsOf(const Verb& verb);

// One function a file of this folder, each with its noun's rows.
std::vector<Verb> AudioVerbs();
std::vector<Verb> BufferVerbs();
std::vector<Verb> CallVerbs();
std::vector<Verb> CaptureVerbs();
std::vector<Verb> CompletionVerbs();
std::vector<Verb> ConnectionVerbs();
std::vector<Verb> DaemonVerbs();
std::vector<Verb> DoctorVerbs();
std::vector<Verb> IoVerbs();
std::vector<Verb> ParameterVerbs();
std::vector<Verb> LiveVerbs();
std::vector<Verb> ProcessorVerbs();
std::vector<Verb> StateVerbs();
std::vector<Verb> StatsVerbs();
std::vector<Verb> TapVerbs();
std::vector<Verb> UseCaseVerbs();
std::vector<Verb> WaitVerbs();

}  // namespace kvox::client
