// kvoxctl: the command-line client of kvoxd.

#include <android/binder_manager.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "client/arguments.h"
#include "client/call_deadline.h"
#include "client/call_table.h"
#include "client/output.h"
#include "client/play.h"
#include "client/record.h"
#include "client/standard_streams.h"
#include "interface/service_name.h"
#include "kvox/common/fixed_text.h"
#include "platform/linux/include/kvox_host/binder_host.h"

namespace {

using kvox::client::Answer;
using kvox::client::CallDeadline;
using kvox::client::IKvox;
using kvox::client::PrintOut;

enum ExitStatus { kDone = 0, kRefused = 1, kWrongUsage = 2, kNoDaemon = 3, kFailed = 74 };

struct Options {
  bool json = false;
  std::vector<std::string> call;  // method and arguments
};

int ReportNoDaemon(const std::string& reason) {
  fprintf(stderr, "kvoxctl: %s\n", reason.c_str());
  return kNoDaemon;
}

std::shared_ptr<IKvox> FindDaemon() {
  return IKvox::fromBinder(ndk::SpAIBinder(AServiceManager_checkService(kvox::KvoxDescriptor())));
}

ndk::ScopedAStatus Make(const std::string& method, const kvox::client::PreparedCall& call,
                        IKvox& daemon, Answer& answer) {
  const CallDeadline deadline(method.c_str(), kNoDaemon);
  return call(daemon, answer);
}

int Call(const Options& options) {
  const std::string& method = options.call.front();
  const auto call = kvox::client::PrepareCall(
      method, std::vector<std::string>(options.call.begin() + 1, options.call.end()));
  const std::shared_ptr<IKvox> daemon = FindDaemon();
  if (!daemon) return ReportNoDaemon(kvox_host::ServiceError());
  Answer answer;
  const ndk::ScopedAStatus status = Make(method, call, *daemon, answer);
  if (status.getStatus() == STATUS_FAILED_TRANSACTION) {
    throw kvox::client::UsageError(method +
                                   ": the call or its answer is larger than the 1 MiB that one "
                                   "call can carry; give less at once");
  }
  if (!status.isOk()) {
    return ReportNoDaemon(method + " was not answered: " + status.getDescription() +
                          "; see whether kvoxd still runs");
  }
  PrintOut(options.json ? kvox::client::AsJson(answer) : kvox::client::AsLines(answer));
  if (answer.afterwards && !answer.afterwards()) return ReportNoDaemon("kvoxd has gone");
  return answer.result.status == IKvox::CommandStatus::OK ? kDone : kRefused;
}

int Ping(const Options& options) {
  using Clock = std::chrono::steady_clock;
  const std::shared_ptr<IKvox> daemon = FindDaemon();
  if (!daemon) return ReportNoDaemon(kvox_host::ServiceError());
  Answer answer;
  const auto ping = [](IKvox& kvox, Answer&) { return kvox.Ping(); };
  const auto begin = Clock::now();
  const ndk::ScopedAStatus status = Make("Ping", ping, *daemon, answer);
  const double round_trip_us =
      std::chrono::duration<double, std::micro>(Clock::now() - begin).count();
  if (!status.isOk()) return ReportNoDaemon("no answer: " + status.getDescription());
  PrintOut(kvox::FormatText<64>(
      options.json ? "{\"schema\": 1, \"round_trip_us\": %.1f}\n" : "kvoxd answers in %.1f us\n",
      round_trip_us));
  return kDone;
}

int32_t Processor(const std::string& word) {
  const auto id = kvox::client::ParseCode(word);
  if (!id) {
    throw kvox::client::UsageError("PROCESSOR: '" + word + "' is not four characters or a number");
  }
  return *id;
}

/// Runs `stay` with a daemon, and turns its outcome into an exit status.
template <typename Stay>
int StayAtDaemon(Stay stay) {
  kvox::client::RelaySession::HoldInterrupts();
  const std::shared_ptr<IKvox> daemon = FindDaemon();
  if (!daemon) return ReportNoDaemon(kvox_host::ServiceError());
  try {
    const kvox::client::StayEnd end = stay(daemon);
    if (end == kvox::client::StayEnd::kNoDaemon) return ReportNoDaemon("kvoxd has gone");
    return static_cast<int>(end);
  } catch (const kvox::client::SoundFileError& error) {
    fprintf(stderr, "kvoxctl: %s\n", error.what());
    return kRefused;
  }
}

kvox::client::SoundReader OpenToPlay(const std::string& path) {
  try {
    return kvox::client::SoundReader(path);
  } catch (const kvox::client::SoundFileError& error) {
    throw kvox::client::UsageError(std::string("FILE: ") + error.what());
  }
}

std::string MethodList() {
  std::string text = "Methods and their arguments:\n";
  for (const std::string& method : kvox::client::DescribeMethods()) text += "  " + method + "\n";
  return text +
         "\nPROCESSOR, TYPE and TAP are four characters (art0) or a number. Negative numbers need "
         "no '--'.\nExample: kvoxctl call Connect pass 0 0";
}

int Run(int argc, char** argv) {
  Options options;
  CLI::App app{"The command-line client of kvoxd.", "kvoxctl"};
  app.set_version_flag("--version", "kvoxctl " KVOX_VERSION);
  app.require_subcommand(1);
  app.add_flag("--json", options.json, "Answer with one JSON object on one line");
  app.footer(
      "Exit status: 0 done, 1 the daemon refused, 2 wrong usage, 3 no daemon, 7 done but blocks "
      "were "
      "missed, 74 kvoxctl failed.\n"
      "Example: kvoxctl --json call ListProcessors");
  CLI::App* call = app.add_subcommand("call", "Call one method of the interface");
  call->prefix_command();
  call->footer(MethodList);
  CLI::App* ping = app.add_subcommand("ping", "See whether the daemon answers, and how fast");
  ping->footer("Example: kvoxctl ping");
  kvox::client::RecordOptions record_options;
  CLI::App* record = app.add_subcommand(
      "record", "Keep the audio that a relay hands to its client in a WAV file, until Ctrl-C");
  record->add_option("PROCESSOR", record_options.name, "Relay, such as art0")->required();
  record->add_option("FILE", record_options.path, "WAV file to write")->required();
  record->add_option("--seconds", record_options.seconds, "End after so much audio")
      ->check(CLI::PositiveNumber);
  record->footer("Example: kvoxctl record art0 downlink.wav");
  kvox::client::PlayOptions play_options;
  CLI::App* play =
      app.add_subcommand("play", "Feed a relay from a sound file, to its end or until Ctrl-C");
  play->add_option("PROCESSOR", play_options.name, "Relay, such as art1")->required();
  std::string file_to_play;
  play->add_option("FILE", file_to_play, "Sound file of the relay's sample rate")->required();
  play->footer("Example: kvoxctl play art1 speech.wav");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    std::ostringstream text;
    std::ostringstream problem;
    const bool asked = app.exit(error, text, problem) == 0;
    PrintOut(text.str());
    fputs(problem.str().c_str(), stderr);
    return asked ? kDone : kWrongUsage;
  }
  if (ping->parsed()) return Ping(options);
  if (record->parsed()) {
    record_options.processor = Processor(record_options.name);
    record_options.json = options.json;
    return StayAtDaemon([&](const auto& daemon) { return Record(daemon, record_options); });
  }
  if (play->parsed()) {
    play_options.processor = Processor(play_options.name);
    play_options.json = options.json;
    auto file = OpenToPlay(file_to_play);
    return StayAtDaemon(
        [&](const auto& daemon) { return Play(daemon, std::move(file), play_options); });
  }
  options.call = call->remaining();
  if (options.call.empty()) {
    throw kvox::client::UsageError("METHOD is missing; 'kvoxctl call --help' lists them");
  }
  return Call(options);
}

}  // namespace

int main(int argc, char** argv) {
  kvox::client::HoldStandardStreams();
  int status;
  try {
    status = Run(argc, argv);
  } catch (const kvox::client::UsageError& error) {
    fprintf(stderr, "kvoxctl: %s\n", error.what());
    status = kWrongUsage;
  } catch (const std::exception& error) {
    fprintf(stderr, "kvoxctl: %s\n", error.what());
    status = kFailed;
  }
  // The answer is out: the binder's threads need no orderly end.
  _exit(status);
}
