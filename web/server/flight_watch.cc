#include "web/server/flight_watch.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <optional>
#include <utility>

#include "client/flight/log_file.h"
#include "client/flight/verbs.h"
#include "kvox/flight/loss_names.h"
#include "libkvox/flight/find_flight.h"

namespace kvox::web {
namespace {

using flight::EventKind;

constexpr std::chrono::milliseconds kPeriod{250};
constexpr size_t kMostEntries = 500;

/// In the order of EventKind; null for what the log leaves out: each command makes several of them.
constexpr std::array<const char*, flight::kEventKinds> kEventNames = {
    "daemon", "command", nullptr,  "device",  "recovery",
    "stream", nullptr,   "client", "capture", "clock"};

std::optional<flight::FlightView> Read(bool events) {
  const auto path = client::FindFlight();
  std::string error;
  return path ? flight::ReadFlight(*path, {.packets = false, .events = events}, &error)
              : std::nullopt;
}

Json CountersOf(const flight::FlightView& flight) {
  Json streams = Json::array();
  for (const flight::StreamView& stream : flight.streams) {
    Json lost = Json::object();
    for (size_t i = 1; i < stream.lost.size(); ++i) {
      if (stream.lost[i] > 0) lost[flight::kLossNames[i]] = stream.lost[i];
    }
    streams.push_back({{"name", stream.name},
                       {"on", stream.on},
                       {"dispatched", stream.dispatched},
                       {"late", stream.late},
                       {"lost", lost}});
  }
  return streams;
}

}  // namespace

FlightWatch::FlightWatch(std::function<void(News)> on_look)
    : on_look_(std::move(on_look)), thread_([this] { Run(); }) {}

FlightWatch::~FlightWatch() {
  ending_ = true;
  thread_.join();
}

Pulse FlightWatch::pulse() const {
  const MutexLock lock(mutex_);
  return pulse_;
}

Json FlightWatch::LogAfter(uint64_t sequence) const {
  Json entries = Json::array();
  const MutexLock lock(mutex_);
  const uint64_t first = pulse_.logged - log_.size();
  for (size_t i = sequence > first ? sequence - first : 0; i < log_.size(); ++i) {
    entries.push_back(log_[i]);
  }
  return entries;
}

std::string FlightWatch::Metrics() {
  const auto flight = Read(false);
  return flight && flight->live ? client::MetricsText(*flight) : "";
}

void FlightWatch::Run() {
  while (!ending_) {
    on_look_(Look());
    std::this_thread::sleep_for(kPeriod);
  }
}

News FlightWatch::Look() {
  const auto flight = Read(true);
  const bool alive = flight && flight->live;
  const uint32_t pid = flight ? flight->pid : 0;
  const bool first_look = pid_ == 0;
  News news;
  news.restarted = pid != pid_ && !first_look && pid != 0;
  Json streams = alive ? CountersOf(*flight) : Json::array();

  const MutexLock lock(mutex_);
  bool changed = pid != pid_ || alive != pulse_.alive;
  pid_ = pid;
  if (flight) {
    const uint64_t before_ns = last_event_ns_;  // they are not quite in order
    for (const flight::EventView& event : flight->events) {
      if (event.at_ns <= before_ns) continue;
      last_event_ns_ = std::max(last_event_ns_, event.at_ns);
      changed = true;
      news.restarted = news.restarted || (event.kind == EventKind::kRecovery && !first_look);
      AddToLog(*flight, event);
    }
  }
  const bool counted = streams != pulse_.streams;
  pulse_.alive = alive;
  pulse_.changes += changed ? 1 : 0;
  if (counted) {
    ++pulse_.counted;
    pulse_.streams = std::move(streams);
  }
  news.any = changed || counted;
  return news;
}

void FlightWatch::AddToLog(const flight::FlightView& flight, const flight::EventView& event) {
  const auto kind = static_cast<size_t>(event.kind);
  if (kind >= kEventNames.size() || kEventNames[kind] == nullptr) return;
  log_.push_back({{"at_ms", client::WallNs(flight, event.at_ns) / 1'000'000},
                  {"kind", kEventNames[kind]},
                  {"subject", event.subject},
                  {"text", event.text},
                  {"status", event.status},
                  {"pid", event.pid}});
  ++pulse_.logged;
  if (log_.size() > kMostEntries) log_.pop_front();
}

}  // namespace kvox::web
