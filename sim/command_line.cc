#include "sim/command_line.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "sim/completion.h"
#include "sim/coprocessor/pacer.h"
#include "sim/faults/fault.h"
#include "sim/output.h"

namespace kvox::sim {
namespace {

constexpr char kSummary[] =
    "Simulates the audio co-processor: its control device, tap-outs and injects.";

constexpr char kExample[] = R"(
Example: a phone in a directory of its own, for ten seconds
  export KVOX_DEV_DIR=$HOME/phone && mkdir -p $KVOX_DEV_DIR
  kvosim --print --seconds 10)";

constexpr double kMaxNumber = 1'000'000;
constexpr double kLeastRotation = 65536;
constexpr double kMostRotation = 1e15;

/// A check for numbers from `low` to `high`.
auto CheckNumber(double low, const std::string& expected, double high = kMaxNumber) {
  return [=](const std::string& text) -> std::string {
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (end != text.c_str() && *end == '\0' && value >= low && value <= high) return "";
    return fmt::format("found {}; expected a number {}", text, expected);
  };
}

auto CheckSeconds() {
  return CheckNumber(std::numeric_limits<double>::denorm_min(),
                     fmt::format("above 0, {} at most", kMaxNumber));
}

/// The parser has an empty line before it already.
std::string Footer(const std::string& text) {
  return text.substr(1);
}

void DescribeRecord(CLI::App& app, CommandLine& line) {
  app.add_option("--from", line.record.from, "Directory of the co-processor's nodes")
      ->required()
      ->type_name("DIR");
  app.add_option("--to", line.record.to, "Directory of the nodes for the daemon, as KVOX_DEV_DIR")
      ->required()
      ->type_name("DIR");
  app.add_option("--rotate", line.record.recording.rotate_at,
                 "Begin the next file after so many bytes, such as 100M")
      ->transform(CLI::AsSizeValue(false))
      ->check(CheckNumber(kLeastRotation, fmt::format("of bytes from {} on", kLeastRotation),
                          kMostRotation))
      ->type_name("SIZE");
  app.add_flag("--no-audio", line.no_audio, "Leave the audio out: packets' headers and sizes only");
  app.add_option("--seconds", line.record.seconds, "Exit after N seconds")
      ->type_name("N")
      ->check(CheckSeconds());
  app.add_option("FILE", line.record.recording.file, "The recording, in the format pcapng")
      ->required()
      ->type_name("FILE");
}

void DescribeReplay(CLI::App& app, CommandLine& line) {
  app.add_option("FILE", line.replay.file, "The recording")->required()->type_name("FILE");
  app.add_flag("--check", line.replay.check,
               "Compare what the daemon sends with what it sent in the recording");
  app.add_option("--speed", line.replay.speed, "N times faster than it was (1)")
      ->type_name("N")
      ->check(CheckNumber(kMinSpeed, fmt::format("from {} to {}", kMinSpeed, kMaxNumber)));
  app.add_option("--from", line.replay.from_s, "Begin so many seconds after the recording's begin")
      ->type_name("SECONDS")
      ->check(CheckNumber(0, fmt::format("from 0 to {}", kMaxNumber)));
  app.add_flag("--loop", line.replay.loop, "Begin anew at the end, until a signal");
}

/// Gives the parser all options and commands; what it reads goes into `line`.
void Describe(CLI::App& app, CommandLine& line) {
  app.set_version_flag("--version", "kvosim " KVOX_VERSION, "Show the version");
  app.set_help_flag("-h,--help", "Show this help");
  app.add_option("--scenario", line.scenario, "What to simulate (TOML); default: a phone")
      ->type_name("FILE");
  app.add_option("--write-default", line.write_default, "Write the built-in scenario and exit")
      ->type_name("FILE|-");
  app.add_option("--speed", line.run.stream.speed, "N times faster than real time (1)")
      ->type_name("N")
      ->check(CheckNumber(kMinSpeed, fmt::format("from {} to {}", kMinSpeed, kMaxNumber)));
  app.add_flag("--keep-rate", line.run.stream.keep_rate,
               "Packets carry their sample rate at any speed");
  app.add_option("--seconds", line.run.seconds, "Exit after N seconds")
      ->type_name("N")
      ->check(CheckSeconds());
  app.add_flag("--print", line.run.print, "Print what runs, every change, and the counters");
  app.add_option("--stats", line.run.stats, "Write the counters as JSON")->type_name("FILE");
  DescribeRecord(
      *app.add_subcommand("record", "Record what passes between co-processor and daemon"), line);
  DescribeReplay(*app.add_subcommand("replay", "Play the co-processor's side of a recording"),
                 line);
  CLI::App* compare = app.add_subcommand("compare", "Compare a recording with what was played");
  compare->add_option("SOURCE", line.source, "What was played")->required()->type_name("FILE");
  compare->add_option("RECORDED", line.recorded, "What arrived")->required()->type_name("FILE");
  compare->add_flag("--skip-silence", line.skip_silence, "Skip silence before the recording");
  CLI::App* ctl = app.add_subcommand("ctl", "Send a command to the running simulator");
  ctl->add_option("COMMAND", line.ctl_words, "The command and its arguments")
      ->required()
      ->expected(1, -1);
  ctl->footer(Footer(HelpSection("Commands", CtlCommands())));
  CLI::App* completion =
      app.add_subcommand("completion", "Print a script that lets a shell complete these words");
  completion->add_option("SHELL", line.shell, "bash, zsh or fish (bash)")
      ->type_name("SHELL")
      ->check(CLI::IsMember(kShells));
  // Last, for commands would inherit it.
  app.footer(Footer(HelpSection("Environment", Variables()) + HelpSection("Signals", Signals()) +
                    HelpSection("Exit status", Exits()) + kExample));
}

/// "-h, --help", "--seconds N", "SOURCE"
std::string UsageOf(const CLI::Option& option) {
  if (option.get_positional()) return option.get_name(true);
  std::string usage;
  for (const char c : option.get_name(false, true)) usage += c == ',' ? ", " : std::string(1, c);
  const bool flag = option.get_items_expected_max() == 0;
  return flag ? usage : usage + " " + option.get_type_name();
}

/// Of a command without its --help, which is the same everywhere.
std::vector<HelpRow> OptionsOf(const CLI::App& app) {
  std::vector<HelpRow> rows;
  for (const CLI::Option* const option : app.get_options()) {
    if (app.get_parent() != nullptr && option == app.get_help_ptr()) continue;
    rows.push_back({UsageOf(*option), option->get_description()});
  }
  return rows;
}

Place PlaceOf(const CLI::App& app) {
  Place place{.words = app.get_parent() == nullptr ? "" : app.get_name()};
  for (const CLI::Option* const option : app.get_options()) {
    if (option->get_positional()) {
      place.files = place.files || option->get_type_name() == "FILE";
    } else {
      const bool flag = option->get_items_expected_max() == 0;
      place.options.push_back({"--" + option->get_lnames().front(), option->get_description(),
                               flag ? "" : option->get_type_name()});
    }
  }
  return place;
}

}  // namespace

std::optional<int> ReadCommandLine(int argc, char** argv, CommandLine& line) {
  CLI::App app(kSummary, "kvosim");
  Describe(app, line);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& result) {
    if (result.get_exit_code() == 0) return app.exit(result);
    Print(stderr, "kvosim: {}; see kvosim --help\n", result.what());
    return kUsage;
  }
  for (const CLI::App* command : app.get_subcommands()) line.command = command->get_name();
  return std::nullopt;
}

std::vector<HelpRow> Options() {
  CLI::App app;
  CommandLine line;
  Describe(app, line);
  return OptionsOf(app);
}

std::vector<CommandHelp> Commands() {
  CLI::App app;
  CommandLine line;
  Describe(app, line);
  std::vector<CommandHelp> commands;
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
    commands.push_back({{command->get_name(), command->get_description()}, OptionsOf(*command)});
  }
  return commands;
}

std::vector<Place> Places() {
  CLI::App app;
  CommandLine line;
  Describe(app, line);
  std::vector<Place> places = {PlaceOf(app)};
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
    places.front().next.push_back({command->get_name(), command->get_description()});
    places.push_back(PlaceOf(*command));
    std::vector<HelpRow>& next = places.back().next;
    if (command->get_name() == "ctl") {
      for (const auto& [usage, help] : CtlCommands()) {
        next.push_back({usage.substr(0, usage.find(' ')), help});
      }
    } else if (command->get_name() == "completion") {
      for (const std::string& shell : kShells) next.push_back({shell, "For " + shell});
    }
  }
  places.push_back({.words = "ctl fault"});
  for (const FaultKindRow& row : FaultKinds()) places.back().next.push_back({row.name, row.help});
  return places;
}

std::vector<HelpRow> CtlCommands() {
  return {
      {"status", "Show the counters, as --stats writes them"},
      {"fault KIND [KEY=VALUE...]", "Set a fault, at once unless it has a trigger"},
      {"clear", "End all faults, also those that are pending"},
      {"restore", "Bring back every node that a fault removed"},
      {"end", "End the simulator"},
  };
}

std::vector<HelpRow> Signals() {
  return {
      {"SIGINT, SIGTERM, SIGHUP", "End the simulator, and its devices with it"},
      {"SIGUSR1", "Print the counters, and write them where --stats says"},
  };
}

std::vector<HelpRow> Variables() {
  return {{"KVOX_DEV_DIR", "Directory for the devices (/dev)"}};
}

std::vector<HelpRow> Exits() {
  return {
      {"0", "as asked; compare, replay --check: the same"},
      {"1",
       "devices, counters or a recording could not be used; compare, replay --check: not the "
       "same; ctl: refused"},
      {"2", "wrong command line or scenario; compare: a file cannot be read"},
      {"3", "ctl: no simulator answers"},
  };
}

}  // namespace kvox::sim
