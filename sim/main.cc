// kvosim: simulates the co-processor on a machine without one. docs/simulator.md is its manual.
#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <stdexcept>

#include "sim/audio/compare.h"
#include "sim/command_line.h"
#include "sim/completion.h"
#include "sim/output.h"
#include "sim/simulator.h"

namespace kvox::sim {
namespace {

int Fail(int status, std::string_view problem) {
  Print(stderr, "kvosim: {}\n", problem);
  return status;
}

int WriteDefault(const std::filesystem::path& path) {
  std::ofstream file;
  if (path != "-") file.open(path);
  std::ostream& out = path == "-" ? std::cout : file;
  if (out << kDefaultScenario << std::flush) return 0;
  return Fail(kUsage, fmt::format("--write-default: {} cannot be written ({}); expected a file "
                                  "or - for standard output",
                                  path.string(), std::strerror(errno)));
}

std::filesystem::path DeviceDirectoryPath() {
  const char* directory = std::getenv("KVOX_DEV_DIR");
  return directory == nullptr || *directory == '\0' ? "/dev" : directory;
}

int Simulate(CommandLine& line) {
  line.run.device_directory = DeviceDirectoryPath();
  try {
    Simulator simulator(line.run, line.scenario.empty()
                                      ? ParseScenario(kDefaultScenario, "built-in", "")
                                      : LoadScenario(line.scenario));
    return simulator.Run() ? 0 : kFailed;
  } catch (const std::invalid_argument& error) {
    // It begins with file and line, for editors.
    Print(stderr, "{}\n", error.what());
    return kUsage;
  } catch (const std::runtime_error& error) {
    return Fail(kFailed, error.what());
  }
}

int RecordOrReplay(CommandLine& line) {
  line.record.recording.audio = !line.no_audio;
  try {
    return line.command == "record" ? Record(line.record)
                                    : Replay(DeviceDirectoryPath(), line.replay);
  } catch (const std::exception& error) {
    return Fail(kFailed, error.what());
  }
}

int Main(int argc, char** argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  CommandLine line;
  if (const std::optional<int> status = ReadCommandLine(argc, argv, line)) return *status;
  if (line.command == "record" || line.command == "replay") return RecordOrReplay(line);
  if (line.command == "compare") {
    return CompareFiles(line.source, line.recorded, line.skip_silence);
  }
  if (line.command == "ctl") return RunCtl(DeviceDirectoryPath(), line.ctl_words);
  if (line.command == "completion") {
    Print(stdout, "{}", CompletionScript(line.shell));
    return 0;
  }
  if (!line.write_default.empty()) return WriteDefault(line.write_default);
  return Simulate(line);
}

}  // namespace
}  // namespace kvox::sim

int main(int argc, char** argv) {
  return kvox::sim::Main(argc, argv);
}
