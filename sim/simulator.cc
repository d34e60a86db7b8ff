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

std::string NodeName(const char* kind, uint8_t id) {
  return fmt::format("xdv-kvox_{}{}", kind, id);
}

}  // namespace

Simulator::Simulator(const RunOptions& options, std::unique_ptr<CoProcessor> co_processor)
    : options_(options),
      co_processor_(std::move(co_processor)),
      start_ns_(GetTimestampNs()),
      journal_(options.print ? stdout : nullptr),
      base_(NewBase()),
      control_(*co_processor_, journal_) {
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

/// The control device comes first: a daemon that sees a device arrive begins to set up what it
/// remembers, and finds somebody who answers. Removal goes the other way.
bool Simulator::CreateDevices(std::string& error) {
  directory_ = DeviceDirectory::Claim(options_.device_directory, error);
  if (directory_ == nullptr) return false;
  channel_ = ControlChannel::Create(
      base_.get(), control_, [this] { Rewire(); }, error);
  if (channel_ == nullptr) return false;
  using Kind = DeviceNode::Kind;
  if (!directory_->Create({Kind::kEmptyFile, "kvo"}, error) ||
      !directory_->Create({Kind::kSymbolicLink, "xdv-kvox_control", channel_->slave_path()},
                          error)) {
    return false;
  }
  for (const uint8_t id : co_processor_->injects()) {
    const std::string name = NodeName("inject", id);
    if (!directory_->Create({Kind::kFifo, name}, error)) return false;
    Inject& inject = *injects_.emplace_back(std::make_unique<Inject>());
    inject.device = InjectDevice::Open(
        base_.get(), id, directory_->PathOf(name),
        [this, &inject](const auto& header, auto payload) { Receive(inject, header, payload); },
        error);
    if (inject.device == nullptr) return false;
  }
  for (const uint8_t id : co_processor_->tapouts()) {
    const std::string name = NodeName("tapout", id);
    if (!directory_->Create({Kind::kFifo, name}, error)) return false;
    tapouts_.push_back(std::make_unique<TapOutDevice>(base_.get(), id, directory_->PathOf(name),
                                                      options_.speed, journal_));
  }
  return true;
}

bool Simulator::Run() {
  if (options_.print) {
    Print(stdout, "{}", ScenarioTable(*co_processor_, options_.device_directory, options_.speed));
  }
  event_base_dispatch(base_.get());
  for (const auto& tapout : tapouts_) tapout->Attach(nullptr);
  for (const auto& inject : injects_) inject->device->Read();
  directory_.reset();
  return Report(options_.print);
}

/// Brings the streams in line with what is enabled and bound.
void Simulator::Rewire() {
  for (const auto& tapout : tapouts_) tapout->Attach(co_processor_->StreamingInto(tapout->id()));
}

void Simulator::Receive(Inject& inject, const KvoxPacketHeader& header,
                        std::span<const std::byte> payload) {
  Tap* tap = co_processor_->ReceivingFrom(inject.device->id());
  if (tap == nullptr) {
    ++inject.unbound;
  } else {
    tap->Receive(header, payload, GetTimestampNs());
  }
}

Stats Simulator::Count() {
  const uint64_t now = GetTimestampNs();
  for (Tap& tap : co_processor_->taps()) tap.round_trip.Expire(now);
  Stats stats{.seconds = static_cast<double>(now - start_ns_) / 1e9,
              .speed = options_.speed,
              .co_processor = co_processor_.get(),
              .commands = control_.counts(),
              .junk_bytes = channel_->junk_bytes(),
              .replies_dropped = channel_->replies_dropped(),
              .injects = {}};
  for (const auto& inject : injects_) {
    stats.injects.push_back({inject->device->id(), inject->unbound, inject->device->counts()});
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
