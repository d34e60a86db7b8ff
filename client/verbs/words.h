// Arguments and options that verbs of several nouns take.
#pragma once

#include "client/command_line/verb.h"
#include "client/model/lookup.h"

namespace kvox::client {

inline Argument ProcessorArgument(Arity arity = Arity::kOnce) {
  return {"PROCESSOR", Kind::kProcessor,
          arity == Arity::kOnce ? "Four characters such as art0"
                                : "Four characters such as art0; all when not given",
          arity};
}

inline Argument TapArgument() {
  return {"TAP", Kind::kTap, "Such as imic.0, or 2:imic.0 for core 2"};
}

inline Argument TapOutArgument() {
  return {
      "TAPOUT", Kind::kTapOut, "Tap-out buffer by name or number, or none", Arity::kOnce, {"none"}};
}

inline Argument InjectArgument() {
  return {
      "INJECT", Kind::kInject, "Inject buffer by name or number, or none", Arity::kOnce, {"none"}};
}

inline Argument GainArgument() {
  return {"GAIN", Kind::kNumber, "Factor"};
}

inline const char* GainNotes() {
  return "kvoxd knows the command, but sets no gain: it refuses for every tap point and use case.\n"
         "Gains are the co-processor's own business.\n";
}

/// The next step behind every refusal of a gain.
inline constexpr char kNoGains[] = "kvoxd sets no gain; set it where the audio is made or played";

inline Option RampOption() {
  return {"--ramp", "MS", Kind::kNumber, "How long the change takes, 0 to 3600000 ms (0)"};
}

/// What was given for RampOption(). Throws UsageError.
inline int32_t RampMs(const Input& in) {
  const std::string& word = in.Get("--ramp");
  return word.empty() ? 0 : Number("--ramp", word, 0, 3'600'000);
}

}  // namespace kvox::client
