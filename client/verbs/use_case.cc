#include <algorithm>

#include "client/verbs/shared.h"
#include "kvox/common/device_names.h"
#include "kvox/common/use_case_needs.h"

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

/// "the board lacks tap point 4:vpdl.0, tapout40", or "". Throws Failure.
std::string FindLacks(Daemon& daemon, const std::string& use_case) {
  const std::vector<Buffer> buffers = QueryBuffers(daemon).rows;
  std::string lacks;
  const auto require = [&](const auto& list, auto name_of, const std::string& name,
                           const std::string& shown) {
    if (std::ranges::find(list, name, name_of) != list.end()) return;
    lacks += (lacks.empty() ? "the board lacks " : ", ") + shown;
  };
  for (const UseCaseNeed& need : kUseCaseNeeds) {
    if (need.use_case != use_case) continue;
    MissingCores missing;
    const auto taps = QueryTaps(daemon, {need.core}, missing).rows;
    const std::string tap =
        std::to_string(need.core) + ":" + ToString(need.tap) + "." + std::to_string(need.index);
    require(taps, &TapPoint::FullName, tap, "tap point " + tap);
    const std::string number = std::to_string(need.buffer);
    for (const char* const prefix : {kTapOutBufferPrefix, kInjectBufferPrefix}) {
      require(buffers, &Buffer::name, prefix + number, prefix + number);
    }
  }
  return lacks;
}

/// The same; "" when it cannot be found out.
std::string WhatLacks(Daemon& daemon, const std::string& use_case) {
  try {
    return FindLacks(daemon, use_case);
  } catch (const Failure&) {
    return "";
  }
}

template <bool kOn>
int Switch(const Context& context) {
  const std::string name = UseCaseNamed(context.daemon, context.in.Get("USECASE"));
  const auto result = context.daemon.Call("Enable", &IKvox::Enable, name, kOn);
  const bool refused = kOn && result.status != IKvox::CommandStatus::OK;
  const std::string lacks = refused ? WhatLacks(context.daemon, name) : "";
  return Report(
      context, "use case " + name, result, {{"name", name}},
      lacks.empty() ? "'kvoxctl graph' and 'kvoxctl tap list' show what it needs" : lacks.c_str());
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
