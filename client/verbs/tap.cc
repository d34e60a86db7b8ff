#include "client/verbs/records.h"
#include "client/verbs/report.h"
#include "client/verbs/words.h"

namespace kvox::client {
namespace {

constexpr int kLargestCore = 255;
constexpr int kLongestBlock = INT32_MAX;
constexpr int kLongestJitterBuffer = 65534;  // the daemon keeps 16 bits; the largest means unset

std::vector<int> CoresOf(const Context& context) {
  std::vector<int> cores;
  for (const std::string& word : context.in.All("CORE")) {
    cores.push_back(Number("CORE", word, 0, kLargestCore));
  }
  if (cores.empty()) cores.assign(std::begin(kGraphCores), std::end(kGraphCores));
  return cores;
}

int List(const Context& context) {
  Told<TapPoint> all;
  std::vector<int> silent;
  for (const int core : CoresOf(context)) {
    auto told = AskTaps(context.daemon, core);
    if (!CoreAnswered(told.lines)) silent.push_back(core);
    all.items.insert(all.items.end(), told.items.begin(), told.items.end());
    all.lines.insert(all.lines.end(), told.lines.begin(), told.lines.end());
    all.unread += told.unread;
  }
  context.out.List(all.lines, "taps", RecordsOf(all.items), all.unread);
  if (silent.empty()) return kDone;
  context.out.Message(SilenceOf(silent));
  return kRefused;
}

/// Calls a method on the tap point that was named, with more arguments.
template <typename Method, typename... T>
int OnTapThen(const char* next_step, const Context& context, const char* name, Method method,
              const T&... more) {
  const TapPoint tap = LookUpTap(context.daemon, context.in.Get("TAP"));
  const auto result =
      context.daemon.Call(name, method, tap.core, CodeOf(tap.code), tap.index, more...);
  return Report(context, "tap point " + tap.FullName(), result, {{"tap", tap.FullName()}},
                next_step);
}

template <typename Method, typename... T>
int OnTap(const Context& context, const char* name, Method method, const T&... more) {
  return OnTapThen("the daemon's log and the co-processor's tell more", context, name, method,
                   more...);
}

int Info(const Context& context) {
  const TapPoint tap = LookUpTap(context.daemon, context.in.Get("TAP"));
  const auto result =
      context.daemon.Call("TapInfo", &IKvox::TapInfo, tap.core, CodeOf(tap.code), tap.index);
  const auto rows = ReadTaps(tap.core, result.lines);
  return Report(context, "tap point " + tap.FullName(), result,
                rows.items.empty() ? Fields() : FieldsOf(rows.items.front()));
}

int BlockLength(const Context& context) {
  const int32_t frames = Number("FRAMES", context.in.Get("FRAMES"), 1, kLongestBlock);
  return OnTap(context, "TapSetBlockLength", &IKvox::TapSetBlockLength, frames);
}

int JitterBuffer(const Context& context) {
  const int32_t frames = Number("FRAMES", context.in.Get("FRAMES"), 0, kLongestJitterBuffer);
  return OnTap(context, "tapSetJitterBuffer", &IKvox::tapSetJitterBuffer, frames);
}

int SetGain(const Context& context) {
  const float gain = Gain("GAIN", context.in.Get("GAIN"));
  const int32_t ramp_ms = RampMs(context.in);
  return OnTapThen(kNoGains, context, "TapSetGain", &IKvox::TapSetGain, gain, ramp_ms);
}

int Connect(const Context& context) {
  const std::string& tapout_word = context.in.Get("TAPOUT");
  const std::string& inject_word = context.in.Get("INJECT");
  const int32_t tapout = LookUpBufferOrNone(context.daemon, Direction::kTapOut, tapout_word);
  const int32_t inject = LookUpBufferOrNone(context.daemon, Direction::kInject, inject_word);
  return OnTap(context, "ConnectTap", &IKvox::ConnectTap, tapout, inject);
}

}  // namespace

std::vector<Verb> TapVerbs() {
  return {
      {"tap",
       "list",
       "List the tap points, and which buffers they are bound to",
       {{"CORE", Kind::kCore, "Core of the co-processor; 2, 3 and 4 when not given",
         Arity::kAnyNumber}},
       {},
       "tap list 2",
       List},
      {"tap",
       "info",
       "Tell what a tap point is and is bound to",
       {TapArgument()},
       {},
       "tap info imic.0",
       Info},
      {"tap",
       "enable",
       "Let audio flow at a tap point",
       {TapArgument()},
       {},
       "tap enable 2:imic.0",
       [](const Context& context) { return OnTap(context, "TapEnable", &IKvox::TapEnable, true); }},
      {"tap",
       "disable",
       "Stop the audio of a tap point",
       {TapArgument()},
       {},
       "tap disable imic.0",
       [](const Context& context) {
         return OnTap(context, "TapEnable", &IKvox::TapEnable, false);
       }},
      {"tap",
       "connect",
       "Bind a tap point to the buffers it streams into and takes audio from",
       {TapArgument(), TapOutArgument(), InjectArgument()},
       {},
       "tap connect genp.0 tapout0 inject0",
       Connect},
      {"tap",
       "disconnect",
       "Unbind a tap point from all buffers",
       {TapArgument()},
       {},
       "tap disconnect genp.0",
       [](const Context& context) {
         return OnTap(context, "ConnectTap", &IKvox::ConnectTap, -1, -1);
       }},
      {"tap",
       "block-length",
       "Set how many frames a packet of a tap point holds",
       {TapArgument(), {"FRAMES", Kind::kNumber, "At least 1"}},
       {},
       "tap block-length imic.0 960",
       BlockLength},
      {"tap",
       "jitter-buffer",
       "Set how many frames a tap point holds back",
       {TapArgument(), {"FRAMES", Kind::kNumber, "0 to 65534"}},
       {},
       "tap jitter-buffer genp.0 960",
       JitterBuffer},
      {"tap",
       "gain",
       "Set a tap point's gain",
       {TapArgument(), GainArgument()},
       {RampOption()},
       "tap gain imic.0 0.5 --ramp 20",
       SetGain,
       GainNotes},
  };
}

}  // namespace kvox::client
