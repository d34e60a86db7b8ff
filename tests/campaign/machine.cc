#include "tests/campaign/machine.h"

#include <sched.h>
#include <signal.h>
#include <stdlib.h>

#include <chrono>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "tests/campaign/streams.h"

namespace kvox::campaign {
namespace {

constexpr Ms kDevicesPatience{10000};

/// The co-processor has a processor of its own; where we may, the simulator has at least the
/// priority for it.
void GivePriority(pid_t pid) {
  sched_param param{};
  param.sched_priority = sched_get_priority_min(SCHED_FIFO);
  sched_setscheduler(pid, SCHED_FIFO, &param);
}

/// What the programs find when they start. Before any client starts: they read the environment.
const bench::PrivateDirectory& Prepare(const bench::PrivateDirectory& home) {
  setenv("KVOX_DEV_DIR", home.Folder("dev").c_str(), 1);
  unsetenv("ANDROID_LOG_TAGS");
  std::ofstream(home.path() / "scenario.toml") << ScenarioText();
  return home;
}

/// One that takes commands: its devices are there then.
std::unique_ptr<bench::Child> StartSimulator(const bench::PrivateDirectory& home) {
  const auto scenario = home.path() / "scenario.toml";
  auto simulator = std::make_unique<bench::Child>(
      std::vector<std::string>{KVOSIM_PROGRAM, "--scenario", scenario}, home.path() / "kvosim");
  const SimControl control(home.path() / "dev");
  const auto until = Clock::now() + kDevicesPatience;
  for (;;) {
    try {
      control.Status();
      GivePriority(simulator->pid());
      return simulator;
    } catch (const SimError& error) {
      if (!simulator->Ended() && Clock::now() < until) {
        std::this_thread::sleep_for(Ms(5));
        continue;
      }
      throw std::runtime_error(std::string("kvosim does not come up: ") + error.what());
    }
  }
}

}  // namespace

Machine::Machine()
    : simulator_(StartSimulator(Prepare(home_))),
      daemon_(home_),
      sim_(home_.path() / "dev"),
      log_(home_.path() / "kvoxd.err"),
      caller_(daemon_.shared_service(), calls_),
      guard_(calls_, daemon_.pid()) {}

void Machine::ReplaceSimulator(Ms away) {
  simulator_->Signal(SIGKILL);
  while (!simulator_->Ended()) std::this_thread::sleep_for(Ms(1));
  std::this_thread::sleep_for(away);
  simulator_ = StartSimulator(home_);
}

std::string Machine::Trouble() {
  log_.Follow();
  if (std::string hang = guard_.Hang(); !hang.empty()) return hang;
  if (const auto end = daemon_.child().Ended()) return "kvoxd has ended: " + *end;
  if (const auto end = simulator_->Ended()) return "kvosim has ended: " + *end;
  if (!ledger().report().empty()) return "a sanitizer reports: " + ledger().report();
  return "";
}

void Machine::KeepLogs(const std::filesystem::path& directory) {
  std::error_code ignored;
  std::filesystem::create_directories(directory, ignored);
  for (const char* name : {"kvoxd.err", "kvosim.out", "kvosim.err", "scenario.toml"}) {
    std::filesystem::copy_file(home_.path() / name, directory / name,
                               std::filesystem::copy_options::overwrite_existing, ignored);
  }
  std::ofstream(directory / "kvoxd.proc") << DescribeResources(daemon_.pid());
  daemon_.child().Signal(SIGKILL);
}

}  // namespace kvox::campaign
