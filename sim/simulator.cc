#include "sim/simulator.h"

#include <fmt/format.h>
#include <signal.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <utility>

#include "kvox/common/kvox_utils.h"
#include "sim/print.h"

namespace kvox::sim {
namespace {

event_base* NewBase() {
  event_config* config = event_config_new();
  // Without it timers go off in steps of the scheduler's tick.
  event_config_set_flag(config, EVENT_BASE_FLAG_PRECISE_TIMER);
  event_base* base = event_base_new_with_config(config);
  event_config_free(config);
  return base;
}

}  // namespace

Simulator::Simulator(const RunOptions& options, std::unique_ptr<CoProcessor> co_processor)
    : options_(options),
      co_processor_(std::move(co_processor)),
      start_ns_(GetTimestampNs()),
      journal_(options.print ? stdout : nullptr),
      base_(NewBase()),
      control_(*co_processor_, journal_),
      plan_(start_ns_),
      exchange_(control_, plan_) {
  signal(SIGPIPE, SIG_IGN);
  const auto on = [this](int fd, short what, auto call) -> Event& {
    return *events_.emplace_back(std::make_unique<Event>(base_.get(), fd, what, call));
  };
  const auto end = [this] { event_base_loopexit(base_.get(), nullptr); };
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) on(number, EV_SIGNAL | EV_PERSIST, end).Add();
  on(SIGUSR1, EV_SIGNAL | EV_PERSIST, [this] { Report(true); }).Add();
  if (options.seconds > 0) {
    on(-1, 0, end).AddIn(static_cast<uint64_t>(options.seconds * 1e9));
  }
}

std::unique_ptr<Simulator> Simulator::Create(const RunOptions& options,
                                             std::unique_ptr<CoProcessor> co_processor,
                                             std::string& error) {
  std::unique_ptr<Simulator> made(new Simulator(options, std::move(co_processor)));
  if (!made->CreateDevices(error)) return nullptr;
  return made;
}

/// The door for commands comes first, so that whoever sees the devices finds it; who calls before
/// the loop runs has to wait that long.
bool Simulator::CreateDevices(std::string& error) {
  directory_ = DeviceDirectory::Claim(options_.device_directory, error);
  if (directory_ == nullptr) return false;
  ctl_ = CtlServer::Create(
      base_.get(), *directory_, [this](const Words& words) { return Command(words); }, error);
  if (ctl_ == nullptr) return false;
  devices_ = DeviceSet::Create(
      {base_.get(), *directory_, *co_processor_, exchange_, journal_, plan_, options_.stream},
      error);
  if (devices_ == nullptr) return false;
  faults_ = std::make_unique<FaultRunner>(base_.get(), plan_, *devices_, journal_, [this] {
    co_processor_->Reset();
    devices_->Rewire();
  });
  targets_.devices = devices_->Names();
  for (const Tap& tap : co_processor_->taps()) targets_.taps.push_back(DisplayName(tap.config));
  for (const FaultSpec& fault : options_.faults) plan_.Add(fault, start_ns_);
  faults_->Wake();
  return true;
}

bool Simulator::Run() {
  if (options_.print) {
    Print(stdout, "{}",
          ScenarioTable(*co_processor_, options_.device_directory, options_.stream.speed));
  }
  event_base_dispatch(base_.get());
  devices_->Stop();
  directory_.reset();
  return Report(options_.print);
}

Stats Simulator::Count() {
  const uint64_t now = GetTimestampNs();
  for (Tap& tap : co_processor_->taps()) tap.round_trip.Expire(now);
  Stats stats{.seconds = static_cast<double>(now - start_ns_) / 1e9,
              .speed = options_.stream.speed,
              .co_processor = co_processor_.get(),
              .commands = control_.counts(),
              .junk_bytes = devices_->control().junk_bytes(),
              .replies_dropped = devices_->control().replies_dropped(),
              .injects = devices_->Count()};
  for (const FaultKindRow& row : FaultKinds()) {
    stats.faults.emplace_back(row.name, plan_.CountsOf(row.kind, now));
  }
  return stats;
}

bool Simulator::Report(bool table) {
  const Stats stats = Count();
  if (table) Print(stdout, "{}", StatsTable(stats));
  std::string error;
  if (options_.stats.empty() || WriteStatsFile(options_.stats, stats, error)) return true;
  Print(stderr, "kvosim: {}\n", error);
  return false;
}

bool WriteStatsFile(const std::filesystem::path& file, const Stats& stats, std::string& error) {
  std::filesystem::path next = file;
  next += ".new";
  std::ofstream stream(next);
  stream << StatsJson(stats);
  stream.close();
  if (stream && rename(next.c_str(), file.c_str()) == 0) return true;
  error = fmt::format("{}: cannot be written ({}); expected a file for the counters", file.string(),
                      std::strerror(errno));
  return false;
}

}  // namespace kvox::sim
