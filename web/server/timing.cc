#include "web/server/timing.h"

#include <time.h>

#include <cmath>

#include "kvox/flight/loss_names.h"
#include "libkvox/flight/find_flight.h"

namespace kvox::web {
namespace {

using flight::PacketRecord;

constexpr uint32_t kFarJump = 1000;  // packets: their numbers began anew

/// In microseconds; 0 where the packets have no period.
int64_t ErrorUs(const PacketRecord& packet, const PacketRecord& before) {
  const uint32_t steps = packet.number - before.number;
  if (packet.period_ns == 0 || steps == 0 || steps > kFarJump) return 0;
  const auto waited_ns = static_cast<int64_t>(packet.arrived_ns - before.arrived_ns);
  return (waited_ns - int64_t{steps} * packet.period_ns) / 1000;
}

/// Null for none.
Json WordOf(flight::Loss loss) {
  const auto i = static_cast<size_t>(loss);
  return i > 0 && i < flight::kLosses ? Json(flight::kLossNames[i]) : Json();
}

double NowMs(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) * 1e-6;
}

}  // namespace

double WallOffsetMs() {
  return std::round(NowMs(CLOCK_REALTIME) - NowMs(CLOCK_MONOTONIC_RAW));
}

Json Timing::Read() {
  std::vector<PacketRecord> records;
  std::vector<PacketRecord> more;
  if (!tail_) {
    const auto path = client::FindFlight();
    if (!path) return Json::array();
    tail_.emplace(*path, stream_);
    tail_->Read(more);  // begins there
    std::string error;
    const auto flight = flight::ReadFlight(*path, {.events = false, .stream = stream_}, &error);
    if (flight && !flight->streams.empty()) records = flight->streams.front().packets;
  }
  if (!tail_->Read(more)) tail_.reset();
  records.insert(records.end(), more.begin(), more.end());
  return RowsOf(records);
}

Json Timing::RowsOf(const std::vector<PacketRecord>& records) {
  Json rows = Json::array();
  for (const PacketRecord& packet : records) {
    if (last_ && packet.arrived_ns <= last_->arrived_ns) continue;  // told already
    rows.push_back({packet.number, std::round(static_cast<double>(packet.arrived_ns) / 1e4) / 100,
                    last_ ? ErrorUs(packet, *last_) : 0, WordOf(packet.loss), packet.missing,
                    WordOf(packet.missing_because), packet.dispatch_ns / 1000,
                    packet.client_ns / 1000});
    last_ = packet;
  }
  return rows;
}

}  // namespace kvox::web
