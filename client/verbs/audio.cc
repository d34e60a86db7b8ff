#include <utility>

#include "client/calls/arguments.h"
#include "client/system/files.h"
#include "client/verbs/relay.h"
#include "client/verbs/shared.h"

namespace kvox::client {
namespace {

double Seconds(const std::string& word) {
  if (word.empty()) return 0;
  const auto seconds = ParseFloat(word);
  if (seconds && *seconds > 0 && *seconds <= 1e9f) return static_cast<double>(*seconds);
  throw UsageError("--seconds: '" + word + "' is not a number from above 0 to 1000000000");
}

SoundReader OpenToPlay(const std::string& path) {
  try {
    return SoundReader(path);
  } catch (const SoundFileError& error) {
    throw UsageError(std::string("FILE: ") + error.what());
  }
}

int RunRecord(const Context& context) {
  const double seconds = Seconds(context.in.Get("--seconds"));
  const std::string& path = context.in.Get("FILE");
  CheckWritable(path);  // before the relay is taken from another client
  return RunSession(context, context.in.Get("PROCESSOR"),
                    [&](const auto& kvox, const SessionOptions& options) {
                      return Record(kvox, options, path, seconds);
                    });
}

int RunPlay(const Context& context) {
  SoundReader file = OpenToPlay(context.in.Get("FILE"));
  return RunSession(context, context.in.Get("PROCESSOR"),
                    [&](const auto& kvox, const SessionOptions& options) {
                      return Play(kvox, options, std::move(file));
                    });
}

const char* Notes() {
  return "A relay has one client: a new one takes the audio over, and ends the session of the "
         "earlier one.\n";
}

}  // namespace

std::vector<Verb> AudioVerbs() {
  return {
      {"record", "Record the audio that a relay gives its client to a WAV file, until Ctrl-C",
       RunRecord, "record art0 downlink.wav",
       Arguments{{"PROCESSOR", Kind::kProcessor, "Relay, such as art0"},
                 {"FILE", Kind::kFile, "WAV file to write"}},
       Options{{"--seconds", "SECONDS", Kind::kNumber, "End after so much audio"}}, Notes,
       VerbKind::kStream},
      {"play", "Play a sound file into a relay, to its end or until Ctrl-C", RunPlay,
       "play art1 speech.wav",
       Arguments{{"PROCESSOR", Kind::kProcessor, "Relay, such as art1"},
                 {"FILE", Kind::kFile, "Sound file of the relay's sample rate"}},
       Options{}, Notes, VerbKind::kStream},
  };
}

}  // namespace kvox::client
