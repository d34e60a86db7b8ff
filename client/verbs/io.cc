#include "client/model/lookup.h"
#include "client/verbs/report.h"

namespace kvox::client {
namespace {

template <typename Method>
int OnBuffers(const Context& context, const char* name, Method method) {
  const std::string& word = context.in.Get("TAPOUT");
  const bool all = word.empty() || word == "all";
  const int32_t id = all ? -1 : LookUpBuffer(context.daemon, Direction::kTapOut, word).id;
  const auto result = context.daemon.Call(name, method, id);
  return Report(context, all ? "buffers" : "tap-out buffer " + std::to_string(id), result, {},
                "'kvoxctl buffer list' shows which are on");
}

}  // namespace

std::vector<Verb> IoVerbs() {
  const Argument tapout = {"TAPOUT",
                           Kind::kTapOut,
                           "Tap-out buffer by name or number; every buffer when not given or all",
                           Arity::kOptional,
                           {"all"}};
  return {
      {"io",
       "start",
       "Read a tap-out buffer, and write the inject buffers it feeds",
       {tapout},
       {},
       "io start tapout0",
       [](const Context& context) { return OnBuffers(context, "StartIo", &IKvox::StartIo); }},
      {"io",
       "stop",
       "Stop reading a tap-out buffer and writing what it feeds",
       {tapout},
       {},
       "io stop all",
       [](const Context& context) { return OnBuffers(context, "StopIo", &IKvox::StopIo); }},
  };
}

}  // namespace kvox::client
