#include "client/lookup.h"
#include "client/verbs/records.h"
#include "client/verbs/report.h"

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
  const auto told = AskGraph(context.daemon);
  context.out.List(told.lines, "paths", RecordsOf(told.items), told.unread);
  return kDone;
}

}  // namespace

std::vector<Verb> ConnectionVerbs() {
  const Argument processor = {"PROCESSOR", Kind::kProcessor, "Four characters such as art0"};
  return {
      {"",
       "connect",
       "Give a processor the buffers that it reads and writes",
       {processor,
        {"TAPOUT", Kind::kTapOut, "Tap-out buffer by name or number, or none"},
        {"INJECT", Kind::kInject, "Inject buffer by name or number, or none"}},
       {},
       "connect pass tapout0 inject0",
       Connect},
      {"",
       "disconnect",
       "Take a processor's buffers away",
       {processor},
       {},
       "disconnect pass",
       Disconnect},
      {"",
       "graph",
       "Show the ways of the audio, from tap point to tap point",
       {},
       {},
       "graph",
       Graph},
  };
}

}  // namespace kvox::client
