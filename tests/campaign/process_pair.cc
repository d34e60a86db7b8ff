#include "tests/campaign/process_pair.h"

#include <android/binder_manager.h>
#include <fmt/format.h>
#include <sched.h>
#include <signal.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "interface/service_name.h"
#include "platform/platform.h"
#include "tests/campaign/streams.h"

namespace kvox::campaign {
namespace {

constexpr Ms kStartLimit{10000};

/// A real co-processor never waits for a CPU. Where allowed, a real-time priority brings the
/// simulator close to that.
void GivePriority(pid_t pid) {
  sched_param param{};
  param.sched_priority = sched_get_priority_min(SCHED_FIFO);
  sched_setscheduler(pid, SCHED_FIFO, &param);
}

/// "exit status 1", "signal 11 (Segmentation fault)"
std::string EndText(int status) {
  return status >= 0 ? fmt::format("exit status {}", status)
                     : fmt::format("signal {} ({})", -status, strsignal(-status));
}

/// Directories for children that, built with ThreadSanitizer, do not sleep for a second when they
/// end: a look-up of kvoxctl has less time.
HostDirectories MakeHome() {
  setenv("TSAN_OPTIONS", "atexit_sleep_ms=50", 0);
  return HostDirectories();
}

/// Returns when it takes commands: then its devices are there.
std::unique_ptr<Process> StartSimulator(const HostDirectories& home) {
  const auto scenario = home / "scenario.toml";
  std::ofstream(scenario) << ScenarioText();
  auto simulator = std::make_unique<Process>(
      KVOSIM_PROGRAM, std::vector<std::string>{"--scenario", scenario}, home / "kvosim");
  const SimControl control(home / "dev");
  const auto until = Clock::now() + kStartLimit;
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

ProcessPair::ProcessPair()
    : home_(MakeHome()),
      simulator_(StartSimulator(home_)),
      daemon_(KVOXD_PROGRAM, {}, home_ / "kvoxd"),
      service_(IKvox::fromBinder(ndk::SpAIBinder(AServiceManager_getService(KvoxDescriptor())))),
      sim_(home_ / "dev"),
      log_(home_ / "kvoxd.err"),
      watchdog_(daemon_.pid()),
      client_(service_, watchdog_) {
  if (!service_) throw std::runtime_error("kvoxd does not serve: " + kvox::ServiceError());
}

std::optional<int> ProcessPair::CallFromAnotherProcess(std::vector<std::string> words,
                                                       Ms limit) const {
  words.insert(words.begin(), "call");
  const auto until = Clock::now() + limit;
  Process client(KVOXCTL_PROGRAM, std::move(words), home_ / "kvoxctl");
  for (;;) {
    const auto status = client.Ended();
    if (status || Clock::now() > until) return status;
    std::this_thread::sleep_for(Ms(1));
  }
}

void ProcessPair::ReplaceSimulator(Ms away) {
  simulator_.reset();
  std::this_thread::sleep_for(away);
  simulator_ = StartSimulator(home_);
}

std::string ProcessPair::Problem() {
  log_.Follow();
  if (std::string hang = watchdog_.Hang(); !hang.empty()) return hang;
  if (const auto end = daemon_.Ended()) return "kvoxd has ended: " + EndText(*end);
  if (const auto end = simulator_->Ended()) return "kvosim has ended: " + EndText(*end);
  if (!log().report().empty()) return "a sanitizer reports: " + log().report();
  return "";
}

void ProcessPair::KeepLogs(const std::filesystem::path& directory) {
  std::error_code ignored;
  std::filesystem::create_directories(directory, ignored);
  for (const char* name : {"kvoxd.err", "kvosim.out", "kvosim.err", "scenario.toml"}) {
    std::filesystem::copy_file(home_ / name, directory / name,
                               std::filesystem::copy_options::overwrite_existing, ignored);
  }
  std::ofstream(directory / "kvoxd.proc") << DescribeProcess(daemon_.pid());
  daemon_.Signal(SIGKILL);
}

}  // namespace kvox::campaign
