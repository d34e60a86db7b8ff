#include "client/verbs/shared.h"

namespace kvox::client {
namespace {

const Argument kUseCase = {"USECASE", Kind::kUseCase, "Name such as MIC_IN; case does not matter"};

int List(const Context& context) {
  const auto names = QueryUseCases(context.daemon);
  Json records = Json::array();
  for (const std::string& name : names.rows) {
    if (context.out.format() == Format::kText) break;
    records.push_back({{"name", name}, {"enabled", OrNull(QueryUseCase(context.daemon, name))}});
  }
  context.out.List(names.lines, "usecases", records);
  return kDone;
}

template <bool kOn>
int Switch(const Context& context) {
  const std::string name = UseCaseNamed(context.daemon, context.in.Get("USECASE"));
  const auto result = context.daemon.Call("Enable", &IKvox::Enable, name, kOn);
  return Report(context, "use case " + name, result, {{"name", name}},
                "'kvoxctl graph' and 'kvoxctl tap list' show what it needs");
}

int Status(const Context& context) {
  const std::string name = UseCaseNamed(context.daemon, context.in.Get("USECASE"));
  auto result = context.daemon.Call("IsEnabled", &IKvox::IsEnabled, name);
  const bool known = result.status == IKvox::CommandStatus::OK;
  // The daemon returns the state as a value alone.
  if (known && context.out.format() == Format::kText) {
    result.lines = {"Use case '" + name + "' is " + (result.value != 0 ? "enabled" : "disabled")};
  }
  return Report(context, "use case " + name, result,
                {{"name", name}, {"enabled", known ? Json(result.value != 0) : Json()}},
                "'kvoxctl graph' shows whether its processor exists");
}

int SetGain(const Context& context) {
  const float gain = context.in.Decimal("GAIN");
  const int32_t ramp_ms = RampMs(context.in);
  const std::string name = UseCaseNamed(context.daemon, context.in.Get("USECASE"));
  const auto result =
      context.daemon.Call("UseCaseSetGain", &IKvox::UseCaseSetGain, name, gain, ramp_ms);
  return Report(context, "use case " + name, result, {{"name", name}}, kNoGains);
}

}  // namespace

std::vector<Verb> UseCaseVerbs() {
  return {
      {"usecase list", "List the use cases", List, "usecase list"},
      {"usecase enable", "Set up all that a use case needs", Switch<true>,
       "usecase enable AREL_TELE", Arguments{kUseCase}},
      {"usecase disable", "Take down what a use case has set up", Switch<false>,
       "usecase disable AREL_TELE", Arguments{kUseCase}},
      {"usecase status", "Show whether a use case is enabled; not every one knows", Status,
       "usecase status AREL_TELE", Arguments{kUseCase}},
      {"usecase gain", "Set a use case's gain", SetGain, "usecase gain MIC_IN 0.5 --ramp 20",
       Arguments{kUseCase, kGain}, Options{kRamp}, GainNotes},
  };
}

}  // namespace kvox::client
