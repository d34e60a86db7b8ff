#include "sim/command_line.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <optional>

#include "sim/coprocessor/pacer.h"

namespace kvox::sim {
namespace {

constexpr char kExample[] = R"(
Example: a phone in a directory of its own, for ten seconds
  export KVOX_DEV_DIR=$HOME/phone && mkdir -p $KVOX_DEV_DIR
  kvosim --print --seconds 10)";

constexpr double kMost = 1'000'000;

std::optional<double> ParseNumber(const std::string& text) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  return end != text.c_str() && *end == '\0' ? std::optional(value) : std::nullopt;
}

/// Both answer what is wrong, or "".
std::string CheckSeconds(const std::string& text) {
  const auto value = ParseNumber(text);
  if (value && *value > 0 && *value <= kMost) return "";
  return fmt::format("found {}; expected a number above 0, {} at most", text, kMost);
}
std::string CheckSpeed(const std::string& text) {
  const auto value = ParseNumber(text);
  if (value && *value >= kLeastSpeed && *value <= kMost) return "";
  return fmt::format("found {}; expected a number from {} to {}", text, kLeastSpeed, kMost);
}

/// The parser has an empty line before it already.
std::string Footer(const std::string& text) {
  return text.substr(1);
}

}  // namespace

void Describe(CLI::App& app, CommandLine& line) {
  app.set_version_flag("--version", "kvosim " KVOX_VERSION, "Show the version");
  app.set_help_flag("-h,--help", "Show this");
  app.add_option("--scenario", line.scenario, "What to simulate (TOML); a phone when not given")
      ->type_name("FILE");
  app.add_option("--write-default", line.write_default, "Write the built-in scenario and end")
      ->type_name("FILE|-");
  app.add_option("--speed", line.run.stream.speed, "Times faster than real time (1)")
      ->type_name("N")
      ->check(CheckSpeed);
  app.add_flag("--keep-rate", line.run.stream.keep_rate,
               "Packets tell their sample rate at any speed");
  app.add_option("--seconds", line.run.seconds, "End after this time")
      ->type_name("N")
      ->check(CheckSeconds);
  app.add_flag("--print", line.run.print, "Tell what runs, every change, and the counters");
  app.add_option("--stats", line.run.stats, "Write the counters there as JSON")->type_name("FILE");
  CLI::App* compare = app.add_subcommand("compare", "Compare a recording with what was played");
  compare->add_option("SOURCE", line.source, "What was played")->required();
  compare->add_option("RECORDED", line.recorded, "What arrived")->required();
  compare->add_flag("--skip-silence", line.skip_silence, "Pass over silence before the recording");
  CLI::App* ctl = app.add_subcommand("ctl", "Command the simulator that runs");
  ctl->add_option("COMMAND", line.command, "The command and its words")
      ->required()
      ->expected(1, -1);
  ctl->footer(Footer(HelpSection("Commands", CtlCommands())));
  // Last, for commands would inherit it.
  app.footer(Footer(HelpSection("Environment", Variables()) + HelpSection("Signals", Signals()) +
                    HelpSection("Exit status", Exits()) + kExample));
}

std::vector<HelpRow> CtlCommands() {
  return {
      {"status", "Show the counters, as --stats writes them"},
      {"fault KIND [KEY=VALUE...]", "Set a fault, at once unless it has a trigger"},
      {"clear", "End all faults, also those that wait"},
      {"restore", "Bring back every node that a fault took away"},
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
      {"0", "as asked; compare: the same"},
      {"1", "devices or counters could not be written; compare: not the same; ctl: refused"},
      {"2", "wrong command line or scenario; compare: a file cannot be read"},
      {"3", "ctl: no simulator answers"},
  };
}

}  // namespace kvox::sim
