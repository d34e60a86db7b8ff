#include "sim/simulator.h"

#include <fmt/format.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "kvox/common/kvox_utils.h"

namespace kvox::sim {
namespace {

/// Writes the counters atomically. Throws std::runtime_error.
void WriteStatsFile(const std::filesystem::path& file, const Stats& stats) {
  std::filesystem::path next = file;
  next += ".new";
  std::ofstream stream(next);
  stream << StatsJson(stats);
  stream.close();
  if (stream && rename(next.c_str(), file.c_str()) == 0) return;
  throw std::runtime_error(
      fmt::format("{}: cannot be written ({}); expected a file for the counters", file.string(),
                  std::strerror(errno)));
}

}  // namespace

Simulator::Simulator(const RunOptions& options, const Scenario& scenario)
    : options_(options),
      start_ns_(GetTimestampNs()),
      journal_(options.print ? stdout : nullptr),
      co_processor_(scenario),
      base_(NewEventBase()),
      commands_(co_processor_, journal_),
      plan_(start_ns_) {
  signal(SIGPIPE, SIG_IGN);
  if (!options.stats.empty()) {
    try {
      WriteStatsFile(options.stats,
                     {.speed = options.stream.speed, .co_processor = &co_processor_});
    } catch (const std::runtime_error& error) {
      throw std::invalid_argument(std::string("kvosim: --stats: ") + error.what());
    }
  }
  const auto end = [this] { event_base_loopexit(base_.get(), nullptr); };
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    events_.emplace_back(base_.get(), number, EV_SIGNAL | EV_PERSIST, end).Add();
  }
  events_.emplace_back(base_.get(), SIGUSR1, EV_SIGNAL | EV_PERSIST, [this] { Report(true); })
      .Add();
  if (options.seconds > 0) {
    events_.emplace_back(base_.get(), -1, 0, end)
        .AddIn(static_cast<uint64_t>(options.seconds * 1e9));
  }
  CreateDevices();
  for (const FaultConfig& fault : scenario.faults) plan_.Add(fault, start_ns_);
  faults_->Wake();
}

/// The socket for commands comes first, so that it exists once the devices do; commands wait until
/// the loop runs.
void Simulator::CreateDevices() {
  directory_.emplace(options_.device_directory);
  ctl_.emplace(base_.get(), *directory_, [this](const Words& words) { return Command(words); });
  devices_.emplace(DeviceSet::Context{base_.get(), *directory_, co_processor_, commands_, journal_,
                                      plan_, options_.stream});
  faults_.emplace(base_.get(), plan_, *devices_, journal_, [this] {
    co_processor_.Reset();
    devices_->Rewire();
  });
}

bool Simulator::Run() {
  if (options_.print) {
    Print(stdout, "{}",
          ScenarioTable(co_processor_, options_.device_directory, options_.stream.speed));
  }
  event_base_dispatch(base_.get());
  devices_->Stop();
  directory_.reset();
  return Report(options_.print);
}

Stats Simulator::Count() {
  const uint64_t now = GetTimestampNs();
  for (Tap& tap : co_processor_.taps()) tap.round_trip.Expire(now);
  Stats stats{.seconds = static_cast<double>(now - start_ns_) / 1e9,
              .speed = options_.stream.speed,
              .co_processor = &co_processor_,
              .commands = commands_.counts(),
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
  try {
    if (!options_.stats.empty()) WriteStatsFile(options_.stats, stats);
    return true;
  } catch (const std::runtime_error& error) {
    Print(stderr, "kvosim: {}\n", error.what());
    return false;
  }
}

CtlReply Simulator::Command(const Words& words) {
  const std::string name = words.empty() ? "" : words.front();
  if (name == "fault") return AddFault({words.begin() + 1, words.end()});
  if (name != "status" && name != "clear" && name != "restore" && name != "end") {
    return {false, fmt::format("command: found \"{}\"; expected one of status, fault, clear, "
                               "restore, end",
                               name)};
  }
  if (words.size() > 1) {
    return {false, fmt::format("{}: found {}; expected no more words", name, words[1])};
  }
  if (name == "end") return {true, "the simulator ends", true};
  if (name == "clear") {
    faults_->Clear();
    return {true, "all faults are cleared"};
  }
  if (name == "restore") {
    faults_->Restore();
    return {true, "all nodes are there"};
  }
  std::string json = StatsJson(Count());
  json.pop_back();  // the newline, which every reply gets
  return {true, json};
}

CtlReply Simulator::AddFault(const Words& words) {
  try {
    const FaultConfig fault = ParseFault(words, TargetsOf(co_processor_.scenario()));
    if (!plan_.Add(fault, GetTimestampNs())) {
      return {false,
              fmt::format("fault: {} wait or are at work already; expected that some end, or "
                          "the command clear",
                          kMaxFaults)};
    }
  } catch (const std::invalid_argument& error) {
    return {false, std::string("fault: ") + error.what()};
  }
  faults_->Wake();
  return {true, fmt::format("fault {} is set", words.front())};
}

}  // namespace kvox::sim
