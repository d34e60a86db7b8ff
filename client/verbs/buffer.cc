// Buffers, their connections, devices and captures.

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <sstream>

#include "client/output/graphviz.h"
#include "client/verbs/shared.h"
#include "kvox/common/command_tables.h"
#include "kvox/common/fixed_text.h"
#include "libkvox/calls/arguments.h"

namespace kvox::client {
namespace {

int List(const Context& context) {
  const std::string& wanted = context.in.Get("DIRECTION");
  TableReply<Buffer> buffers;
  for (const Direction direction : {Direction::kTapOut, Direction::kInject}) {
    if (!wanted.empty() && wanted != NameOf(direction)) continue;
    buffers.Append(QueryBuffers(context.daemon, direction));
  }
  MissingCores none;
  AddHealth(context.daemon, buffers.rows, none);
  const int status = PrintTable(context, "buffers", buffers);
  for (const Buffer& buffer : buffers.rows) {
    if (!buffer.gave_up) continue;
    context.out.Message(buffer.name + " gave up: its device fails; 'kvoxctl io start " +
                        std::to_string(buffer.id) + "' tries again");
  }
  return status;
}

// Connect, StartIo and StopIo need a look-up first: a Connect refused for one buffer has still
// applied the other, and StartIo and StopIo succeed for a missing buffer, and remember it.

/// Also disconnects: buffers that are not given become none.
int Connect(const Context& context) {
  const auto look_up = [&](Direction direction, const char* argument) {
    const std::string& word = context.in.Get(argument);
    return word.empty() ? -1 : LookUpBufferOrNone(context.daemon, direction, word);
  };
  const ProcessorId id = ProcessorOf(context);
  const int32_t from = look_up(Direction::kTapOut, "TAPOUT");
  const int32_t to = look_up(Direction::kInject, "INJECT");
  const auto result = context.daemon.Call("Connect", &IKvox::Connect, id.id, from, to);
  return Report(context, "processor " + id.name, result, {{"id", id.name}});
}

int Graph(const Context& context) {
  if (!context.in.Has("--dot")) {
    std::vector<int> absent;
    PrintTable(context, "paths", QueryGraph(context.daemon, absent));
    if (!absent.empty()) context.out.Message(AbsenceOf(absent));
    return kDone;
  }
  if (context.out.format() != Format::kText) {
    throw UsageError("--dot: a drawing has no other form; leave out --json and --short");
  }
  const Snapshot snapshot = ReadSnapshot(context.daemon);
  PrintUnchanged(GraphAsDot(snapshot));
  const std::vector<int>& absent = snapshot.missing_cores.absent;
  if (!absent.empty()) context.out.Message(AbsenceOf(absent));
  const std::string gaps = GapsOf(snapshot);
  if (gaps.empty()) return kDone;
  context.out.Message("the drawing is not complete: " + gaps);
  return kRefused;
}

template <bool kOn>
int Switch(const Context& context) {
  const std::string& word = context.in.Get("TAPOUT");
  const bool all = word.empty() || word == "all";
  const int32_t id = all ? -1 : LookUpBuffer(context.daemon, Direction::kTapOut, word);
  const auto result = kOn ? context.daemon.Call("StartIo", &IKvox::StartIo, id)
                          : context.daemon.Call("StopIo", &IKvox::StopIo, id);
  return Report(context, all ? "buffers" : "tap-out buffer " + std::to_string(id), result,
                Json::object(), "'kvoxctl buffer list' shows which are on");
}

/// Runs one of the daemon's debug commands.
int RunDebug(const Context& context, const std::string& object, const Lines& words,
             const std::function<std::string()>& next_step) {
  for (const std::string& word : words) {
    if (!ParseText(word)) throw UsageError("'" + object + "': a word is no text in UTF-8");
  }
  auto result = context.daemon.Call("Debug", &IKvox::Debug, words);
  if (result.status != IKvox::CommandStatus::OK) {
    // The line that repeats the request comes first in every other reply.
    std::stable_partition(result.lines.begin(), result.lines.end(),
                          [](const std::string& line) { return line.starts_with("Debug "); });
  }
  const bool done = result.status == IKvox::CommandStatus::OK;
  return Report(context, object, result, Json::object(), done ? "" : next_step());
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
  if (word.find('.') != word.npos && ParseTapWord(word)) {
    throw UsageError("BUFFER: " + ValidUtf8(word) + " is a tap point; 'kvoxctl record " +
                     ValidUtf8(word) + " FILE' records it");
  }
  return ParseInt(word) ? LookUpBuffer(context.daemon, word).name : word;
}

/// A capture that runs, or has failed.
struct Capture {
  std::string buffer;
  bool recording = false;
  std::string samples;
  std::string trouble;
  std::string file;
};

std::vector<Capture> QueryCaptures(Daemon& daemon) {
  std::vector<Capture> captures;
  for (const std::string& line : daemon.Call("Debug", &IKvox::Debug, Lines{kHealthWord}).lines) {
    if (!line.starts_with(kHealthCapture)) continue;
    std::istringstream fields(line.substr(std::strlen(kHealthCapture)));
    Capture capture;
    std::string state;
    for (std::string* const field : {&capture.buffer, &state, &capture.samples, &capture.trouble}) {
      std::getline(fields, *field, '\t');
    }
    std::getline(fields, capture.file, '\0');
    capture.recording = state == kCaptureRecording;
    captures.push_back(capture);
  }
  return captures;
}

int ShowCaptures(const Context& context) {
  std::vector<std::string> lines;
  Json records = Json::array();
  for (const Capture& it : QueryCaptures(context.daemon)) {
    lines.push_back(it.buffer + ": " + it.file +
                    (it.recording ? ", " + it.samples + " samples so far"
                                  : " failed or ended by itself: " + it.trouble));
    records.push_back({{"buffer", it.buffer},
                       {"recording", it.recording},
                       {"samples", ParseInt(it.samples).value_or(0)},
                       {"trouble", OrNull(it.trouble)},
                       {"file", it.file}});
  }
  if (lines.empty()) lines.push_back("no capture runs");
  context.out.List(lines, "captures", records);
  return kDone;
}

/// Why the last capture of the buffer failed, or of any for "all".
std::string TroubleOf(Daemon& daemon, const std::string& buffer) {
  for (const Capture& capture : QueryCaptures(daemon)) {
    if (capture.recording || (buffer != "all" && capture.buffer != buffer)) continue;
    return capture.file + ": " + capture.trouble + "; the daemon must be able to write the file";
  }
  return "one is running already; 'kvoxctl capture status' shows it";
}

int StartCapture(const Context& context) {
  const std::string& file = context.in.Get("FILE");
  if (context.in.Get("BUFFER") != "all" && file.empty()) {
    throw UsageError("FILE is missing; 'kvoxctl capture start --help' shows what it takes");
  }
  Lines words = {"capture", "start", BufferName(context)};
  if (!file.empty()) words.push_back(AbsolutePath(file));
  return RunDebug(context, "capture of " + words[2], words,
                  [&] { return TroubleOf(context.daemon, words[2]); });
}

int StopCapture(const Context& context) {
  const std::string name = BufferName(context);
  return RunDebug(context, "capture of " + name, {"capture", "stop", name},
                  [] { return "'kvoxctl capture status' shows which run"; });
}

/// The daemon lists its commands on one line, with two blanks before each.
int DebugHelp(const Context& context) {
  auto result = context.daemon.Call("Debug", &IKvox::Debug, Lines{"help"});
  Lines commands;
  for (const std::string& line : result.lines) {
    for (size_t at = line.find("  "); at != line.npos;) {
      const size_t end = line.find("  ", at + 1);
      commands.push_back(line.substr(at + 2, end == line.npos ? end : end - at - 2));
      at = end;
    }
  }
  if (!commands.empty()) result.lines = commands;
  return Report(context, "debug", result);
}

int Debug(const Context& context) {
  const Lines& words = context.in.All("WORD");
  if (words.empty() || words == Lines{"help"}) return DebugHelp(context);
  return RunDebug(context, words.empty() ? "debug" : words.front(), words,
                  [] { return "'kvoxctl debug help' lists the commands"; });
}

}  // namespace

std::vector<Verb> BufferVerbs() {
  const Argument optional_tapout = {
      "TAPOUT",
      Kind::kTapOut,
      "Tap-out buffer by name or number; every buffer when not given or all",
      Arity::kEachOptional,
      {"all"}};
  return {
      {"buffer list", "List the buffers, and which processors use them", List,
       "buffer list tap-out",
       Arguments{{"DIRECTION",
                  Kind::kChoice,
                  "tap-out or inject; both when not given",
                  Arity::kOptional,
                  {"tap-out", "inject"}}}},
      {"connect", "Connect a processor to the buffers that it reads and writes", Connect,
       "connect pass tapout0 inject0", Arguments{kProcessor, kTapOut, kInject}},
      {"disconnect", "Disconnect a processor from its buffers", Connect, "disconnect pass",
       Arguments{kProcessors}},
      {"graph", "Show the paths of the audio, from tap point to tap point", Graph, "graph --dot",
       Arguments{},
       Options{{"--dot", nullptr, Kind::kText,
                "Draw tap points, buffers and processors for Graphviz"}}},
      {"io start", "Read a tap-out buffer, and write the inject buffers it feeds", Switch<true>,
       "io start tapout0", Arguments{optional_tapout}},
      {"io stop", "Stop reading a tap-out buffer and writing what it feeds", Switch<false>,
       "io stop all", Arguments{optional_tapout}},
      {"capture start", "Capture what passes through a buffer into a WAV file of the daemon's",
       StartCapture, "capture start tapout0 heard.wav",
       Arguments{
           {"BUFFER",
            Kind::kBuffer,
            "Buffer by name such as inject3, or all",
            Arity::kOnce,
            {"all"}},
           {"FILE", Kind::kFile, "File; for all, the start of the files' names (/tmp/kvox_capture)",
            Arity::kOptional}}},
      {"capture status", "List the captures that run, and those that failed", ShowCaptures,
       "capture status"},
      {"capture stop", "End a capture; its file is then complete", StopCapture,
       "capture stop tapout0",
       Arguments{{"BUFFER",
                  Kind::kBuffer,
                  "Buffer by name; every one when not given or all",
                  Arity::kEachOptional,
                  {"all"}}}},
      {"debug", "Run one of the daemon's debug commands", Debug, "debug buffer_dump tapout 0",
       Arguments{{"WORD", Kind::kText, "The command's words; help lists the commands",
                  Arity::kAnyNumber}}},
  };
}

}  // namespace kvox::client
