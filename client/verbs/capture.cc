#include <algorithm>
#include <filesystem>

#include "client/calls/arguments.h"
#include "client/verbs/shared.h"

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
    // The line that repeats the request comes first in every other reply.
    std::stable_partition(result.lines.begin(), result.lines.end(),
                          [](const std::string& line) { return line.starts_with("Debug "); });
  }
  return Report(context, object, result, Json::object(), next_step);
}

/// A path that means the same to the daemon, which has its own working directory.
std::string AbsolutePath(const std::string& path) {
  std::error_code error;
  const auto absolute = std::filesystem::absolute(path, error);
  return error ? path : absolute.string();
}

/// The name of the buffer that was given, or all; it may not exist.
std::string BufferName(const Context& context) {
  const std::string& word = context.in.Get("BUFFER");
  if (word.empty()) return "all";
  return ParseInt(word) ? LookUpBuffer(context.daemon, word).name : word;
}

int Start(const Context& context) {
  const std::string& file = context.in.Get("FILE");
  if (context.in.Get("BUFFER") != "all" && file.empty()) {
    throw UsageError("FILE is missing; 'kvoxctl capture start --help' shows what it takes");
  }
  Lines words = {"capture", "start", BufferName(context)};
  if (!file.empty()) words.push_back(AbsolutePath(file));
  return RunDebug(context, "capture of " + words[2], words,
                  "the daemon must be able to write the file, and none may be running");
}

int Stop(const Context& context) {
  const std::string name = BufferName(context);
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
      {"capture start",
       "Let the daemon write what passes through a buffer into a WAV file",
       Start,
       "capture start tapout0 heard.wav",
       {{"BUFFER", Kind::kBuffer, "Buffer by name such as inject3, or all", Arity::kOnce, {"all"}},
        {"FILE", Kind::kFile, "File; for all, the start of the files' names (/tmp/kvox_capture)",
         Arity::kOptional}}},
      {"capture stop",
       "End a capture; its file is then complete",
       Stop,
       "capture stop tapout0",
       {{"BUFFER",
         Kind::kBuffer,
         "Buffer by name; every one when not given or all",
         Arity::kOptional,
         {"all"}}}},
      {"debug",
       "Run one of the daemon's debug commands",
       Debug,
       "debug buffer_dump tapout 0",
       {{"WORD", Kind::kText, "The command's words; help lists the commands", Arity::kAnyNumber}}},
  };
}

}  // namespace kvox::client
