// kvosim: stands for the co-processor on a machine that has none. docs/simulator.md is its manual.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "sim/audio/compare.h"
#include "sim/command_line.h"
#include "sim/ctl_client.h"
#include "sim/print.h"
#include "sim/simulator.h"

namespace kvox::sim {
namespace {

constexpr int kFailed = 1;
constexpr int kUsage = 2;

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
