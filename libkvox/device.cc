#include "libkvox/device.h"

#include <algorithm>
#include <iterator>

#include "kvox/common/fixed_text.h"
#include "kvox/common/kvox_utils.h"
#include "kvox/common/near_matches.h"
#include "libkvox/flight/find_flight.h"
#include "libkvox/flight/incidents.h"
#include "libkvox/graph/change.h"
#include "libkvox/graph/route.h"
#include "libkvox/model/snapshot.h"

namespace kvox::client {
namespace {

Failure NoStream(const std::string& path, const std::string& word) {
  std::string error;
  std::vector<std::string> names;
  const auto flight = flight::ReadFlight(path, {.packets = false, .events = false}, &error);
  if (flight) std::ranges::transform(flight->streams, std::back_inserter(names), &StreamView::name);
  return Failure(kNoObject, NotFound("recorded stream", word, names, "'kvoxctl why' shows all"));
}

}  // namespace

std::vector<TapPoint> Device::Taps() {
  MissingCores missing;
  auto taps = QueryTaps(daemon_, kAllCores, missing).rows;
  if (taps.empty() && !missing.silent.empty()) throw Failure(kRefused, SilenceOf(missing.silent));
  return taps;
}

std::vector<Buffer> Device::Buffers() {
  return QueryBuffers(daemon_).rows;
}

std::vector<Processor> Device::Processors() {
  return QueryProcessors(daemon_).rows;
}

std::vector<Path> Device::Graph() {
  std::vector<int> absent;
  return QueryGraph(daemon_, absent).rows;
}

void Device::AddRoute(const Route& route) {
  MakeChange(daemon_, [&](const Snapshot& snapshot) { return WithRoute(route, snapshot); });
}

void Device::RemoveRoutes(const std::vector<std::string>& processors) {
  MakeChange(daemon_,
             [&](const Snapshot& snapshot) { return WithoutProcessors(processors, snapshot); });
}

std::vector<Trouble> Why(const std::string& stream, double last_s) {
  if (!(last_s >= 0.001 && last_s <= 86'400)) {
    throw UsageError(FormatText<96>("last: %g is not a time from 0.001 to 86400 s", last_s));
  }
  const auto path = FindFlight();
  if (!path) throw Failure(kNoDaemon, "there is no flight log; start kvoxd");
  std::string error;
  const auto flight = flight::ReadFlight(*path, {.stream = stream}, &error);
  if (!flight) throw Failure(kFailed, error);
  if (!stream.empty() && flight->streams.empty()) throw NoStream(*path, stream);
  const uint64_t now_ns = GetTimestampNs();
  const auto last_ns = static_cast<uint64_t>(last_s * 1e9);
  std::vector<Trouble> troubles;
  for (const StreamView& view : flight->streams) {
    for (const Incident& incident :
         FindIncidents(*flight, view, now_ns - std::min(now_ns, last_ns))) {
      troubles.push_back({view.name, CauseWord(incident.blame.cause), CauseText(incident.blame),
                          incident.blame.evidence, Advice(incident.blame.cause), CountOf(incident),
                          IsLoss(incident)});
    }
  }
  return troubles;
}

}  // namespace kvox::client
