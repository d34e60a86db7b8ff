// Buffers, what they are connected to, and their devices.

#include "client/model/graphviz.h"
#include "client/verbs/shared.h"

namespace kvox::client {
namespace {

int List(const Context& context) {
  const std::string& wanted = context.in.Get("DIRECTION");
  TableReply<Buffer> buffers;
  for (const Direction direction : {Direction::kTapOut, Direction::kInject}) {
    if (!wanted.empty() && wanted != NameOf(direction)) continue;
    buffers.Append(QueryBuffers(context.daemon, direction));
  }
  return PrintTable(context, "buffers", buffers);
}

// Connect, StartIo and StopIo look buffers up first: a Connect that is refused for one buffer has
// taken the other, and the others succeed without a buffer, and remember it.

int Connect(const Context& context, const std::string& tapout, const std::string& inject) {
  const ProcessorId id = ProcessorOf(context);
  const int32_t from = LookUpBufferOrNone(context.daemon, Direction::kTapOut, tapout);
  const int32_t to = LookUpBufferOrNone(context.daemon, Direction::kInject, inject);
  const auto result = context.daemon.Call("Connect", &IKvox::Connect, id.id, from, to);
  return Report(context, "processor " + id.name, result, {{"id", id.name}});
}

int Graph(const Context& context) {
  if (!context.in.Has("--dot")) return PrintTable(context, "paths", QueryGraph(context.daemon));
  if (context.out.format() != Format::kText) {
    throw UsageError("--dot: a drawing has no other form; leave out --json and --short");
  }
  const Snapshot snapshot = ReadSnapshot(context.daemon);
  PrintOut(GraphAsDot(snapshot));
  const std::string gaps = GapsOf(snapshot);
  if (gaps.empty()) return kDone;
  context.out.Message("the drawing is not complete: " + gaps);
  return kRefused;
}

template <typename Method>
int OnBuffers(const Context& context, const char* name, Method method) {
  const std::string& word = context.in.Get("TAPOUT");
  const bool all = word.empty() || word == "all";
  const int32_t id = all ? -1 : LookUpBuffer(context.daemon, Direction::kTapOut, word);
  const auto result = context.daemon.Call(name, method, id);
  return Report(context, all ? "buffers" : "tap-out buffer " + std::to_string(id), result,
                Json::object(), "'kvoxctl buffer list' shows which are on");
}

}  // namespace

std::vector<Verb> BufferVerbs() {
  const Argument optional_tapout = {
      "TAPOUT",
      Kind::kTapOut,
      "Tap-out buffer by name or number; every buffer when not given or all",
      Arity::kOptional,
      {"all"}};
  return {
      {"buffer list",
       "List the buffers, and which processors use them",
       List,
       "buffer list tap-out",
       {{"DIRECTION",
         Kind::kChoice,
         "tap-out or inject; both when not given",
         Arity::kOptional,
         {"tap-out", "inject"}}}},
      {"connect",
       "Give a processor the buffers that it reads and writes",
       [](const Context& context) {
         return Connect(context, context.in.Get("TAPOUT"), context.in.Get("INJECT"));
       },
       "connect pass tapout0 inject0",
       {kProcessor, kTapOut, kInject}},
      {"disconnect",
       "Take a processor's buffers away",
       [](const Context& context) { return Connect(context, "none", "none"); },
       "disconnect pass",
       {kProcessor}},
      {"graph",
       "Show the paths of the audio, from tap point to tap point",
       Graph,
       "graph --dot",
       {},
       {{"--dot", nullptr, Kind::kText, "Draw tap points, buffers and processors for Graphviz"}}},
      {"io start",
       "Read a tap-out buffer, and write the inject buffers it feeds",
       [](const Context& context) { return OnBuffers(context, "StartIo", &IKvox::StartIo); },
       "io start tapout0",
       {optional_tapout}},
      {"io stop",
       "Stop reading a tap-out buffer and writing what it feeds",
       [](const Context& context) { return OnBuffers(context, "StopIo", &IKvox::StopIo); },
       "io stop all",
       {optional_tapout}},
  };
}

}  // namespace kvox::client
