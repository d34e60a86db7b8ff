#include <utility>

#include "client/audio/play.h"
#include "client/audio/record.h"
#include "client/calls/arguments.h"
#include "client/command_line/verb.h"
#include "client/model/lookup.h"
#include "client/system/files.h"

namespace kvox::client {
namespace {

/// Turns the outcome of a stay at the daemon into an exit status.
template <typename Stay>
int StayAtDaemon(Stay stay) {
  try {
    const StayEnd end = stay();
    if (end == StayEnd::kNoDaemon) throw Failure(kNoDaemon, "kvoxd has gone");
    return static_cast<int>(end);
  } catch (const SoundFileError& error) {
    throw Failure(kRefused, error.what());
  }
}

SoundReader OpenToPlay(const std::string& path) {
  try {
    return SoundReader(path);
  } catch (const SoundFileError& error) {
    throw UsageError(std::string("FILE: ") + error.what());
  }
}

double Seconds(const std::string& word) {
  if (word.empty()) return 0;
  const auto seconds = ParseFloat(word);
  if (!seconds || !(*seconds > 0 && *seconds <= 1e9f)) {
    throw UsageError("--seconds: '" + word + "' is not a number from above 0 to 1000000000");
  }
  return static_cast<double>(*seconds);
}

int RunRecord(const Context& context) {
  RecordOptions options;
  options.seconds = Seconds(context.in.Get("--seconds"));
  options.path = context.in.Get("FILE");
  CheckWritable(options.path);  // before the relay is taken from another client
  options.json = context.out.json();
  options.wait = context.daemon.wait();
  RelaySession::BlockInterrupts();
  const ProcessorId id = LookUpRelay(context.daemon, context.in.Get("PROCESSOR"));
  options.processor = id.id;
  options.name = id.name;
  return StayAtDaemon([&] { return Record(context.daemon.kvox(), options); });
}

int RunPlay(const Context& context) {
  PlayOptions options;
  options.json = context.out.json();
  options.wait = context.daemon.wait();
  auto file = OpenToPlay(context.in.Get("FILE"));
  RelaySession::BlockInterrupts();
  const ProcessorId id = LookUpRelay(context.daemon, context.in.Get("PROCESSOR"));
  options.processor = id.id;
  options.name = id.name;
  return StayAtDaemon([&] { return Play(context.daemon.kvox(), std::move(file), options); });
}

const char* Notes() {
  return "A relay has one client: who comes later takes the audio over, and ends the earlier "
         "one.\n";
}

}  // namespace

std::vector<Verb> AudioVerbs() {
  return {
      {"",
       "record",
       "Keep the audio that a relay hands to its client in a WAV file, until Ctrl-C",
       {{"PROCESSOR", Kind::kProcessor, "Relay, such as art0"},
        {"FILE", Kind::kFile, "WAV file to write"}},
       {{"--seconds", "SECONDS", Kind::kNumber, "End after so much audio"}},
       "record art0 downlink.wav",
       RunRecord,
       Notes,
       Manner::kStreams},
      {"",
       "play",
       "Feed a relay from a sound file, to its end or until Ctrl-C",
       {{"PROCESSOR", Kind::kProcessor, "Relay, such as art1"},
        {"FILE", Kind::kFile, "Sound file of the relay's sample rate"}},
       {},
       "play art1 speech.wav",
       RunPlay,
       Notes,
       Manner::kStreams},
  };
}

}  // namespace kvox::client
