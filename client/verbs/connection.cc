#include "client/model/graphviz.h"
#include "client/output/standard_streams.h"
#include "client/verbs/records.h"
#include "client/verbs/report.h"
#include "client/verbs/words.h"

namespace kvox::client {
namespace {

int Tie(const Context& context, const std::string& tapout, const std::string& inject) {
  const ProcessorId id = LookUpProcessor(context.daemon, context.in.Get("PROCESSOR"));
  const int32_t from = LookUpBufferOrNone(context.daemon, Direction::kTapOut, tapout);
  const int32_t to = LookUpBufferOrNone(context.daemon, Direction::kInject, inject);
  const auto result = context.daemon.Call("Connect", &IKvox::Connect, id.id, from, to);
  return Report(context, "processor " + id.name, result, {{"id", id.name}});
}

int Connect(const Context& context) {
  return Tie(context, context.in.Get("TAPOUT"), context.in.Get("INJECT"));
}

int Disconnect(const Context& context) {
  return Tie(context, "none", "none");
}

int Graph(const Context& context) {
  if (context.in.Has("--dot")) {
    if (context.out.format() != Format::kText) {
      throw UsageError("--dot: a picture has no other form; leave out --json and --short");
    }
    const Snapshot snapshot = ReadSnapshot(context.daemon);
    PrintOut(GraphAsDot(snapshot));
    const std::string gaps = GapsOf(snapshot);
    if (gaps.empty()) return kDone;
    context.out.Message("the picture is not whole: " + gaps);
    return kRefused;
  }
  const auto told = AskGraph(context.daemon);
  context.out.List(told.lines, "paths", RecordsOf(told.items), told.unread);
  return kDone;
}

}  // namespace

std::vector<Verb> ConnectionVerbs() {
  return {
      {"",
       "connect",
       "Give a processor the buffers that it reads and writes",
       {ProcessorArgument(), TapOutArgument(), InjectArgument()},
       {},
       "connect pass tapout0 inject0",
       Connect},
      {"",
       "disconnect",
       "Take a processor's buffers away",
       {ProcessorArgument()},
       {},
       "disconnect pass",
       Disconnect},
      {"",
       "graph",
       "Show the ways of the audio, from tap point to tap point",
       {},
       {{"--dot", nullptr, Kind::kText, "Draw tap points, buffers and processors for Graphviz"}},
       "graph --dot",
       Graph},
  };
}

}  // namespace kvox::client
