// kvosim: stands for the co-processor on a machine that has none. docs/simulator.md is its manual.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "sim/compare.h"
#include "sim/ctl_client.h"
#include "sim/pacer.h"
#include "sim/print.h"
#include "sim/simulator.h"

namespace kvox::sim {
namespace {

constexpr int kFailed = 1;
constexpr int kUsage = 2;

constexpr char kExample[] = R"(Example: a phone in a directory of its own, for ten seconds
  export KVOX_DEV_DIR=$HOME/phone && mkdir -p $KVOX_DEV_DIR
  kvosim --print --seconds 10

Devices appear in $KVOX_DEV_DIR, /dev when it is not set.)";

struct CommandLine {
  RunOptions run;
  std::filesystem::path scenario;
  std::filesystem::path write_default;
  std::filesystem::path source;
  std::filesystem::path recorded;
  bool skip_silence = false;
  std::vector<std::string> command;
};

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

void Describe(CLI::App& app, CommandLine& line) {
  app.set_version_flag("--version", "kvosim " KVOX_VERSION);
  app.footer(kExample);
  app.add_option("--scenario", line.scenario, "what to simulate (TOML); a phone when not given")
      ->type_name("FILE");
  app.add_option("--write-default", line.write_default, "write the built-in scenario and end")
      ->type_name("FILE|-");
  app.add_option("--speed", line.run.stream.speed, "times faster than real time (1)")
      ->type_name("N")
      ->check(CheckSpeed);
  app.add_flag("--keep-rate", line.run.stream.keep_rate,
               "packets tell their sample rate at any speed");
  app.add_option("--seconds", line.run.seconds, "end after this time")
      ->type_name("N")
      ->check(CheckSeconds);
  app.add_flag("--print", line.run.print, "tell what runs, every change, and the counters");
  app.add_option("--stats", line.run.stats, "write the counters there as JSON")->type_name("FILE");
  CLI::App* compare = app.add_subcommand("compare", "compare a recording with what was played");
  compare->add_option("SOURCE", line.source, "what was played")->required();
  compare->add_option("RECORDED", line.recorded, "what arrived")->required();
  compare->add_flag("--skip-silence", line.skip_silence, "pass over silence before the recording");
  CLI::App* ctl = app.add_subcommand("ctl", "command the simulator that runs");
  ctl->add_option("COMMAND", line.command,
                  "status, fault KIND [KEY=VALUE...], clear, restore or end")
      ->required()
      ->expected(1, -1);
}

/// What is wrong with a scenario begins with its file and line, as editors like it.
int BadScenario(std::string_view error) {
  Print(stderr, "{}\n", error);
  return kUsage;
}

int Trouble(int status, std::string_view problem) {
  Print(stderr, "kvosim: {}\n", problem);
  return status;
}

int WriteDefault(const std::filesystem::path& path) {
  FILE* file = path == "-" ? stdout : std::fopen(path.c_str(), "we");
  bool written = file != nullptr && std::fwrite(kDefaultScenario.data(), 1, kDefaultScenario.size(),
                                                file) == kDefaultScenario.size();
  if (file != nullptr && (file == stdout ? std::fflush(file) : std::fclose(file)) != 0) {
    written = false;
  }
  if (written) return 0;
  return Trouble(kUsage, fmt::format("--write-default: {} cannot be written ({}); expected a file "
                                     "or - for standard output",
                                     path.string(), std::strerror(errno)));
}

std::filesystem::path DeviceDirectoryPath() {
  const char* directory = std::getenv("KVOX_DEV_DIR");
  return directory == nullptr || *directory == '\0' ? "/dev" : directory;
}

int Simulate(CommandLine& line) {
  Scenario scenario;
  std::string error;
  const bool loaded = line.scenario.empty()
                          ? ParseScenario(kDefaultScenario, "built-in", "", scenario, error)
                          : LoadScenario(line.scenario, scenario, error);
  if (!loaded) return BadScenario(error);
  line.run.faults = scenario.faults;
  auto co_processor = CoProcessor::Create(scenario, error);
  if (co_processor == nullptr) return BadScenario(error);
  const Stats nothing{.speed = line.run.stream.speed, .co_processor = co_processor.get()};
  if (!line.run.stats.empty() && !WriteStatsFile(line.run.stats, nothing, error)) {
    return Trouble(kUsage, "--stats: " + error);
  }
  line.run.device_directory = DeviceDirectoryPath();
  const auto simulator = Simulator::Create(line.run, std::move(co_processor), error);
  if (simulator == nullptr) return Trouble(kFailed, error);
  return simulator->Run() ? 0 : kFailed;
}

int Main(int argc, char** argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  CommandLine line;
  CLI::App app("Simulates the audio co-processor: its control device, tap-outs and injects.",
               "kvosim");
  Describe(app, line);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& result) {
    if (result.get_exit_code() == 0) return app.exit(result);
    return Trouble(kUsage, fmt::format("{}; see kvosim --help", result.what()));
  }
  if (app.got_subcommand("compare")) {
    return CompareFiles(line.source, line.recorded, line.skip_silence);
  }
  if (app.got_subcommand("ctl")) return RunCtl(DeviceDirectoryPath(), line.command);
  if (!line.write_default.empty()) return WriteDefault(line.write_default);
  return Simulate(line);
}

}  // namespace
}  // namespace kvox::sim

int main(int argc, char** argv) {
  return kvox::sim::Main(argc, argv);
}
