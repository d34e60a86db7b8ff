#include "bench/campaign/machine.h"

#include <sched.h>
#include <signal.h>
#include <stdlib.h>

#include <chrono>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "bench/campaign/streams.h"

namespace kvox::campaign {
namespace {

constexpr Ms kDevicesPatience{10000};
/// Longer than any command may take: a buffer's device is opened for four seconds.
constexpr Ms kCallLimit{30000};

std::vector<std::string> PrepareSimulator(const bench::PrivateDirectory& home) {
  setenv("KVOX_DEV_DIR", home.Folder("dev").c_str(), 1);
  unsetenv("ANDROID_LOG_TAGS");
  const auto scenario = home.path() / "scenario.toml";
  std::ofstream(scenario) << ScenarioText();
  return {KVOSIM_PROGRAM, "--scenario", scenario};
}

/// The co-processor has a processor of its own; where we may, the simulator has at least the
/// priority for it.
pid_t WithPriority(pid_t pid) {
  sched_param param{};
  param.sched_priority = sched_get_priority_min(SCHED_FIFO);
  sched_setscheduler(pid, SCHED_FIFO, &param);
  return pid;
}

/// The devices are there when the last one is.
const bench::PrivateDirectory& AwaitDevices(const bench::PrivateDirectory& home,
                                            bench::Child& simulator) {
  WithPriority(simulator.pid());
  const auto last = home.path() / "dev/xdv-kvox_tapout41";
  const auto until = Clock::now() + kDevicesPatience;
  while (!exists(last)) {
    if (simulator.Ended() || Clock::now() > until) {
      throw std::runtime_error("kvosim does not come up; see " + home.path().string());
    }
    std::this_thread::sleep_for(Ms(5));
  }
  return home;
}

}  // namespace

Machine::Machine()
    : simulator_(PrepareSimulator(home_), home_.path() / "kvosim"),
      daemon_(AwaitDevices(home_, simulator_)),
      sim_(home_.path() / "dev"),
      log_(home_.path() / "kvoxd.err"),
      caller_(daemon_.shared_service(), calls_) {}

std::string Machine::Trouble() {
  log_.Follow();
  if (const auto end = daemon_.child().Ended()) return "kvoxd has ended: " + *end;
  if (const auto end = simulator_.Ended()) return "kvosim has ended: " + *end;
  if (!ledger().report().empty()) return "a sanitizer reports: " + ledger().report();
  if (const auto call = calls_.Overdue(kCallLimit)) {
    return *call + " does not return\n" + DescribeResources(daemon_.pid());
  }
  return "";
}

void Machine::KeepLogs(const std::filesystem::path& directory) {
  std::error_code ignored;
  std::filesystem::create_directories(directory, ignored);
  for (const char* name : {"kvoxd.err", "kvosim.out", "kvosim.err", "scenario.toml"}) {
    std::filesystem::copy_file(home_.path() / name, directory / name,
                               std::filesystem::copy_options::overwrite_existing, ignored);
  }
  daemon_.child().Signal(SIGKILL);
}

}  // namespace kvox::campaign
