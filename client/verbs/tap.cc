#include "client/verbs/shared.h"

namespace kvox::client {
namespace {

constexpr int kLargestCore = 255;
constexpr int kLongestJitterBuffer = 32767;  // longer ones are not restored

constexpr char kNextStep[] = "the daemon's log and the co-processor's tell more";

int List(const Context& context) {
  std::vector<int> cores;
  for (const std::string& word : context.in.All("CORE")) {
    cores.push_back(ParseNumber("CORE", word, 0, kLargestCore));
  }
  MissingCores missing;
  const auto table = QueryTaps(context.daemon, cores.empty() ? kAllCores : cores, missing);
  if (!cores.empty() && !missing.absent.empty()) {
    throw Failure(kNoObject, AbsenceOf(missing.absent));
  }
  PrintTable(context, "taps", table);
  if (!missing.absent.empty()) context.out.Message(AbsenceOf(missing.absent));
  if (missing.silent.empty()) return kDone;
  context.out.Message(SilenceOf(missing.silent));
  return kRefused;
}

/// Calls a method on the tap point that was named, with more arguments.
template <typename Method, typename... T>
int OnTap(const char* next_step, const Context& context, const char* name, Method method,
          const T&... more) {
  const TapPoint tap = TapNamed(context.daemon, context.in.Get("TAP"));
  const auto result =
      context.daemon.Call(name, method, tap.core, CodeOf(tap.code), tap.index, more...);
  return Report(context, "tap point " + tap.FullName(), result, {{"tap", tap.FullName()}},
                next_step);
}

int Info(const Context& context) {
  const TapPoint tap = TapNamed(context.daemon, context.in.Get("TAP"));
  const auto result =
      context.daemon.Call("TapInfo", &IKvox::TapInfo, tap.core, CodeOf(tap.code), tap.index);
  const auto rows = ParseTaps(tap.core, result.lines).rows;
  return Report(context, "tap point " + tap.FullName(), result,
                rows.empty() ? Json::object() : RecordOf(rows.front()));
}

template <bool kOn>
int Switch(const Context& context) {
  return OnTap(kNextStep, context, "TapEnable", &IKvox::TapEnable, kOn);
}

int Connect(const Context& context) {
  const int32_t tapout =
      BufferOrNoneNamed(context.daemon, Direction::kTapOut, context.in.Get("TAPOUT"));
  const int32_t inject =
      BufferOrNoneNamed(context.daemon, Direction::kInject, context.in.Get("INJECT"));
  return OnTap(kNextStep, context, "ConnectTap", &IKvox::ConnectTap, tapout, inject);
}

int Disconnect(const Context& context) {
  return OnTap(kNextStep, context, "ConnectTap", &IKvox::ConnectTap, -1, -1);
}

int SetBlockLength(const Context& context) {
  return OnTap(kNextStep, context, "TapSetBlockLength", &IKvox::TapSetBlockLength,
               context.in.Number("FRAMES", 1, INT32_MAX));
}

int SetJitterBuffer(const Context& context) {
  return OnTap(kNextStep, context, "tapSetJitterBuffer", &IKvox::tapSetJitterBuffer,
               context.in.Number("FRAMES", 0, kLongestJitterBuffer));
}

int SetGain(const Context& context) {
  const float gain = context.in.Decimal("GAIN");
  return OnTap(kNoGains, context, "TapSetGain", &IKvox::TapSetGain, gain, RampMs(context.in));
}

}  // namespace

std::vector<Verb> TapVerbs() {
  const auto notes = [] {
    return "JitterBuf is always 0: the co-processor does not report jitter buffers.\n";
  };
  return {
      {"tap list", "List the tap points, and which buffers they are bound to", List, "tap list 2",
       Arguments{{"CORE", Kind::kCore, "Core of the co-processor; 2, 3 and 4 when not given",
                  Arity::kAnyNumber}},
       Options{}, notes},
      {"tap info", "Show what a tap point is and is bound to", Info, "tap info imic.0",
       Arguments{kTaps}, Options{}, notes},
      {"tap enable", "Start the audio of a tap point", Switch<true>, "tap enable 2:imic.0",
       Arguments{kTaps}},
      {"tap disable", "Stop the audio of a tap point", Switch<false>, "tap disable imic.0",
       Arguments{kTaps}},
      {"tap connect", "Bind a tap point to the buffers it streams into and takes audio from",
       Connect, "tap connect genp.0 tapout0 inject0", Arguments{kTap, kTapOut, kInject}},
      {"tap disconnect", "Unbind a tap point from all buffers", Disconnect, "tap disconnect genp.0",
       Arguments{kTaps}},
      {"tap block-length", "Set how many frames a packet of a tap point holds", SetBlockLength,
       "tap block-length imic.0 960", Arguments{kTap, {"FRAMES", Kind::kNumber, "At least 1"}}},
      {"tap jitter-buffer", "Set how many frames a tap point holds back", SetJitterBuffer,
       "tap jitter-buffer genp.0 960", Arguments{kTap, {"FRAMES", Kind::kNumber, "0 to 32767"}}},
      {"tap gain", "Set a tap point's gain", SetGain, "tap gain imic.0 0.5 --ramp 20",
       Arguments{kTap, kGain}, Options{kRamp}, GainNotes},
  };
}

}  // namespace kvox::client
