#include <algorithm>

#include "client/verbs/shared.h"
#include "kvox/common/device_names.h"
#include "kvox/common/use_case_needs.h"

namespace kvox::client {
namespace {

const Argument kUseCase = {"USECASE", Kind::kUseCase, "Name such as MIC_IN; case does not matter"};
const Argument kUseCases = {kUseCase.name, kUseCase.kind, kUseCase.help, Arity::kEach};

int List(const Context& context) {
  const auto names = QueryUseCases(context.daemon);
  Json records = Json::array();
  if (context.out.format() != Format::kText) {
    const auto processors = QueryProcessors(context.daemon).rows;
    for (const std::string& name : names.rows) {
      const auto enabled = QueryUseCase(context.daemon, name, processors);
      records.push_back({{"name", name}, {"enabled", OrNull(enabled)}});
    }
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

/// What others have of the things that the use case binds for itself: "tapout20, which pass reads,
/// 2:imic.0, bound to tapout0", or "". Throws Failure.
std::string FindTakeovers(Daemon& daemon, const std::string& use_case) {
  std::string taken;
  const auto add = [&](const std::string& what) { taken += (taken.empty() ? "" : ", ") + what; };
  const auto tapouts = QueryBuffers(daemon, Direction::kTapOut).rows;
  const auto injects = QueryBuffers(daemon, Direction::kInject).rows;
  for (const UseCaseNeed& need : kUseCaseNeeds) {
    if (need.use_case != use_case) continue;
    const std::string number = std::to_string(need.buffer);
    const std::string tapout = kTapOutBufferPrefix + number;
    const Buffer* const from = FindBuffer(tapouts, tapout);
    const Buffer* const to = FindBuffer(injects, kInjectBufferPrefix + number);
    if (from != nullptr && !from->consumers.empty()) {
      add(tapout + ", which " + from->consumers.front() + " reads");
    }
    if (to != nullptr && !to->producer.empty())
      add(to->name + ", which " + to->producer + " writes");
    MissingCores missing;
    const std::string tap = ToString(need.tap);
    for (const TapPoint& point : QueryTaps(daemon, {need.core}, missing).rows) {
      if (point.code != tap || point.index != need.index) continue;
      if (!point.tapout.empty() && point.tapout != tapout) {
        add(point.FullName() + ", bound to " + point.tapout);
      }
    }
  }
  return taken;
}

/// What `find` finds; "" when it cannot be found out.
std::string IfKnown(std::string (*find)(Daemon&, const std::string&), Daemon& daemon,
                    const std::string& use_case) {
  try {
    return find(daemon, use_case);
  } catch (const Failure&) {
    return "";
  }
}

/// Says what enabling the use case takes from others. One that is on has taken it already.
void SayTakeovers(const Context& context, const std::string& use_case) {
  if (QueryUseCase(context.daemon, use_case, QueryProcessors(context.daemon).rows) == true) return;
  const std::string taken = IfKnown(FindTakeovers, context.daemon, use_case);
  if (!taken.empty()) context.out.Message("use case " + use_case + " takes over " + taken);
}

template <bool kOn>
int Switch(const Context& context) {
  const std::string name = UseCaseNamed(context.daemon, context.in.Get("USECASE"));
  if (kOn) SayTakeovers(context, name);
  const auto result = context.daemon.Call("Enable", &IKvox::Enable, name, kOn);
  const bool refused = kOn && result.status != IKvox::CommandStatus::OK;
  const std::string lacks = refused ? IfKnown(FindLacks, context.daemon, name) : "";
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
       "usecase enable AREL_TELE", Arguments{kUseCases}},
      {"usecase disable", "Take down what a use case has set up", Switch<false>,
       "usecase disable AREL_TELE", Arguments{kUseCases}},
      {"usecase status", "Show whether a use case is enabled; not every one knows", Status,
       "usecase status AREL_TELE", Arguments{kUseCases}},
      {"usecase gain", "Set a use case's gain", SetGain, "usecase gain MIC_IN 0.5 --ramp 20",
       Arguments{kUseCase, kGain}, Options{kRamp}, GainNotes},
  };
}

}  // namespace kvox::client
