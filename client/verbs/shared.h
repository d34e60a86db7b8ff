// Shared by verbs of several nouns: arguments, records, and reports.
#pragma once

#include <string>
#include <vector>

#include "client/command_line/verb.h"
#include "client/output/json.h"
#include "libkvox/model/lookup.h"

namespace kvox::client {

inline const Argument kProcessor = {"PROCESSOR", Kind::kProcessor, "Four characters such as art0"};
inline const Argument kProcessors = {"PROCESSOR", Kind::kProcessor, "Four characters such as art0",
                                     Arity::kEach};
inline const Argument kTaps = {"TAP", Kind::kTap, "Such as imic.0, or 2:imic.0 for core 2",
                               Arity::kEach};
inline const Argument kTap = {"TAP", Kind::kTap, "Such as imic.0, or 2:imic.0 for core 2"};
inline const Argument kTapOut = {
    "TAPOUT", Kind::kTapOut, "Tap-out buffer by name or number, or none", Arity::kOnce, {"none"}};
inline const Argument kInject = {
    "INJECT", Kind::kInject, "Inject buffer by name or number, or none", Arity::kOnce, {"none"}};
inline const Argument kGain = {"GAIN", Kind::kNumber, "Factor"};
inline const Option kRamp = {"--ramp", "MS", Kind::kNumber,
                             "How long the change takes, 0 to 3600000 ms (0)"};

/// The value of kRamp. Throws UsageError.
inline int32_t RampMs(const Input& in) {
  return in.Number("--ramp", 0, 3'600'000, 0);
}

inline const char* GainNotes() {
  return "kvoxd knows the command, but sets no gain: it refuses for every tap point and use case.\n"
         "Gains are up to the co-processor.\n";
}

/// The next step after every refusal of a gain.
inline constexpr char kNoGains[] = "kvoxd sets no gain; set it where the audio is made or played";

// Objects as records, the same in every verb.

Json RecordOf(const Processor& processor);
Json RecordOf(const TapPoint& tap);
Json RecordOf(const Buffer& buffer);
Json RecordOf(const Path& path);

template <typename T>
Json RecordsOf(const std::vector<T>& items) {
  Json records = Json::array();
  for (const T& item : items) records.push_back(RecordOf(item));
  return records;
}

/// Prints a table and returns kDone.
template <typename T>
int PrintTable(const Context& context, const char* key, const TableReply<T>& table) {
  context.out.List(table.lines, key, RecordsOf(table.rows), table.unparsed);
  return kDone;
}

/// Prints names as records with one field and returns kDone.
int PrintNames(const Context& context, const char* key, const char* field,
               const TableReply<std::string>& names);

/// The processor that the argument PROCESSOR names; it may not exist.
inline ProcessorId ProcessorOf(const Context& context) {
  return ProcessorNamed(context.daemon, context.in.Get("PROCESSOR"));
}

/// For a command that failed: throws Failure when one of the verb's arguments names an object that
/// does not exist.
void CheckNames(const Context& context, const IKvox::CommandResult& result);

/// Reports what a verb has changed: prints the daemon's own lines when it succeeded, else a message
/// that names `object`, the cause and `next_step`. JSON has "status", the `fields`, and "lines" in
/// either case. Returns the exit status. Throws as CheckNames() does.
int Report(const Context& context, const std::string& object, const IKvox::CommandResult& result,
           const Json& fields = Json::object(),
           const std::string& next_step = "the daemon's log tells more");

}  // namespace kvox::client
