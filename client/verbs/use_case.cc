#include "client/verbs/records.h"
#include "client/verbs/report.h"
#include "client/verbs/words.h"

namespace kvox::client {
namespace {

const Argument kUseCase = {"USECASE", Kind::kUseCase, "Name such as MIC_IN; case does not count"};

int List(const Context& context) {
  const auto told = AskUseCases(context.daemon);
  std::vector<UseCase> use_cases;
  for (const std::string& name : told.items) {
    const bool ask = context.out.format() != Format::kText;
    use_cases.push_back({name, ask ? AskUseCase(context.daemon, name) : std::nullopt});
  }
  context.out.List(told.lines, "usecases", RecordsOf(use_cases));
  return kDone;
}

int Switch(const Context& context, bool on) {
  const std::string name = LookUpUseCase(context.daemon, context.in.Get("USECASE"));
  const auto result = context.daemon.Call("Enable", &IKvox::Enable, name, on);
  return Report(context, "use case " + name, result, {{"name", name}},
                "'kvoxctl graph' and 'kvoxctl tap list' show what it needs");
}

int Status(const Context& context) {
  const std::string name = LookUpUseCase(context.daemon, context.in.Get("USECASE"));
  const auto result = context.daemon.Call("IsEnabled", &IKvox::IsEnabled, name);
  const bool known = result.status == IKvox::CommandStatus::OK;
  // The daemon has the state as a value alone.
  if (known && context.out.format() == Format::kText) {
    context.out.One({"Use case '" + name + "' is " + (result.value != 0 ? "enabled" : "disabled")},
                    {});
    return kDone;
  }
  return Report(context, "use case " + name, result,
                {{"name", name}, {"enabled", known ? Value(result.value != 0) : Value(nullptr)}},
                "'kvoxctl graph' shows whether its processor is there");
}

int SetGain(const Context& context) {
  const float gain = Gain("GAIN", context.in.Get("GAIN"));
  const int32_t ramp_ms = RampMs(context.in);
  const std::string name = LookUpUseCase(context.daemon, context.in.Get("USECASE"));
  const auto result =
      context.daemon.Call("UseCaseSetGain", &IKvox::UseCaseSetGain, name, gain, ramp_ms);
  return Report(context, "use case " + name, result, {{"name", name}}, kNoGains);
}

}  // namespace

std::vector<Verb> UseCaseVerbs() {
  return {
      {"usecase", "list", "List the use cases", {}, {}, "usecase list", List},
      {"usecase",
       "enable",
       "Set up all that a use case needs",
       {kUseCase},
       {},
       "usecase enable AREL_TELE",
       [](const Context& context) { return Switch(context, true); }},
      {"usecase",
       "disable",
       "Take down what a use case has set up",
       {kUseCase},
       {},
       "usecase disable AREL_TELE",
       [](const Context& context) { return Switch(context, false); }},
      {"usecase",
       "status",
       "Tell whether a use case is enabled; not every one knows",
       {kUseCase},
       {},
       "usecase status AREL_TELE",
       Status},
      {"usecase",
       "gain",
       "Set a use case's gain",
       {kUseCase, GainArgument()},
       {RampOption()},
       "usecase gain MIC_IN 0.5 --ramp 20",
       SetGain,
       GainNotes},
  };
}

}  // namespace kvox::client
