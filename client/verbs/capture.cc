#include <algorithm>
#include <filesystem>

#include "client/calls/arguments.h"
#include "client/model/lookup.h"
#include "client/verbs/report.h"

namespace kvox::client {
namespace {

/// Runs one of the daemon's debug commands.
int RunDebug(const Context& context, const std::string& object, const Lines& words,
             const std::string& next_step) {
  for (const std::string& word : words) {
    if (!ParseText(word)) throw UsageError("'" + object + "': a word is no text in UTF-8");
  }
  auto result = context.daemon.Call("Debug", &IKvox::Debug, words);
  if (result.status != IKvox::CommandStatus::OK) {
    // The line that repeats the request stands first in every other answer.
    std::stable_partition(result.lines.begin(), result.lines.end(),
                          [](const std::string& line) { return line.starts_with("Debug "); });
  }
  return Report(context, object, result, {}, next_step);
}

/// A path that means the same to the daemon, which has a directory of its own.
std::string AbsolutePath(const std::string& path) {
  std::error_code error;
  const auto absolute = std::filesystem::absolute(path, error);
  return error ? path : absolute.string();
}

int Start(const Context& context) {
  const std::string& word = context.in.Get("BUFFER");
  const std::string& file = context.in.Get("FILE");
  Lines words = {"capture", "start", "all"};
  if (word != "all") {
    if (file.empty()) {
      throw UsageError("FILE is missing; 'kvoxctl capture start --help' shows what it takes");
    }
    words.back() = LookUpBuffer(context.daemon, word).name;
  }
  if (!file.empty()) words.push_back(AbsolutePath(file));
  return RunDebug(context, "capture of " + words[2], words,
                  "the daemon must be able to write the file, and none may be running");
}

int Stop(const Context& context) {
  const std::string& word = context.in.Get("BUFFER");
  const bool all = word.empty() || word == "all";
  const std::string name = all ? "all" : LookUpBuffer(context.daemon, word).name;
  return RunDebug(context, "capture of " + name, {"capture", "stop", name},
                  "'kvoxctl capture start' starts one");
}

int Debug(const Context& context) {
  const Lines& words = context.in.All("WORD");
  return RunDebug(context, words.empty() ? "debug" : words.front(), words,
                  "'kvoxctl debug help' lists the commands");
}

}  // namespace

std::vector<Verb> CaptureVerbs() {
  return {
      {"capture",
       "start",
       "Let the daemon write what passes through a buffer into a WAV file",
       {{"BUFFER", Kind::kBuffer, "Buffer by name such as inject3, or all", Arity::kOnce, {"all"}},
        {"FILE", Kind::kFile,
         "File, or for all the beginning of the files' names (/tmp/kvox_capture)",
         Arity::kOptional}},
       {},
       "capture start tapout0 heard.wav",
       Start},
      {"capture",
       "stop",
       "End a capture; its file is complete then",
       {{"BUFFER",
         Kind::kBuffer,
         "Buffer by name; every one when not given or all",
         Arity::kOptional,
         {"all"}}},
       {},
       "capture stop tapout0",
       Stop},
      {"",
       "debug",
       "Run one of the daemon's debug commands",
       {{"WORD", Kind::kText, "The command's words; help lists the commands", Arity::kAnyNumber}},
       {},
       "debug buffer_dump tapout 0",
       Debug},
  };
}

}  // namespace kvox::client
