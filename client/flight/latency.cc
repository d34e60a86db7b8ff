// The verb latency: what kvoxd adds between the arrival of a packet and its last write.

#include <algorithm>

#include "client/audio/click_probe.h"
#include "client/flight/log_file.h"
#include "client/flight/verbs.h"
#include "client/output/json.h"
#include "kvox/common/fixed_text.h"
#include "libkvox/flight/incidents.h"
#include "libkvox/units.h"

namespace kvox::client {
namespace {

constexpr double kLast_s = 60;
constexpr size_t kPictureWidth = 50;

/// Sorted; of packets that some inject took whole.
std::vector<uint64_t> LatenciesOf(const StreamView& stream, uint64_t from_ns) {
  std::vector<uint64_t> latencies;
  for (const PacketRecord& packet : stream.packets) {
    const bool sent = packet.written != 0 && packet.loss == flight::Loss::kNone;
    if (sent && packet.arrived_ns >= from_ns) latencies.push_back(packet.dispatch_ns);
  }
  std::ranges::sort(latencies);
  return latencies;
}

/// The value that `share` of them do not exceed.
uint64_t Percentile(const std::vector<uint64_t>& sorted, double share) {
  const auto index = static_cast<size_t>(share * static_cast<double>(sorted.size() - 1));
  return sorted[index];
}

/// A bar for each quarter of an octave that has values, and those between.
std::vector<std::string> Picture(const std::vector<uint64_t>& sorted) {
  std::array<uint64_t, flight::kBuckets> counts = {};
  for (const uint64_t value : sorted) ++counts[flight::BucketOf(value)];
  const uint64_t most = *std::ranges::max_element(counts);
  std::vector<std::string> lines;
  for (size_t bucket = flight::BucketOf(sorted.front()); bucket <= flight::BucketOf(sorted.back());
       ++bucket) {
    const uint64_t count = counts[bucket];
    const size_t width = (count * kPictureWidth + most - 1) / most;
    lines.push_back(
        FormatText<32>("  %8s ",
                       TimeText(static_cast<double>(flight::BucketFloor(bucket))).c_str()) +
        std::string(width, '#') + (count > 0 ? " " + std::to_string(count) : ""));
  }
  return lines;
}

/// The stream that is asked for. Throws Failure when it is not there, or does not go to the inject
/// buffer that is asked for.
const StreamView& StreamOf(const Context& context, const FlightView& flight) {
  const StreamView& stream = *StreamsOf(context.in, flight).front();
  const std::string& inject = context.in.Get("INJECT");
  const auto routes = std::ranges::find_if(
      flight.events.rbegin(), flight.events.rend(), [&](const flight::EventView& event) {
        return event.kind == EventKind::kRoutes && event.subject == stream.name;
      });
  if (inject.empty() || routes == flight.events.rend()) return stream;
  if ((routes->text + " ").find(" " + inject + " ") != std::string::npos) return stream;
  throw Failure(kNoObject, stream.name + " does not go to '" + EscapeControls(inject) +
                               "'; see kvoxctl graph");
}

/// From the log: arrival to the last write. Throws Failure when there are no such packets.
Json LatencyOfDaemon(const Context& context, std::vector<std::string>& lines) {
  const FlightView flight = OpenFlight(context.in);
  const StreamView& stream = StreamOf(context, flight);
  const auto latencies = LatenciesOf(stream, BeginOf(context.in, flight, kLast_s));
  if (latencies.empty()) {
    throw Failure(kNoObject, stream.name +
                                 ": no packet has reached an inject buffer in that time; see "
                                 "'kvoxctl why " +
                                 stream.name + "'");
  }
  const uint64_t median = Percentile(latencies, 0.5);
  const uint64_t p99 = Percentile(latencies, 0.99);
  const auto text = [](uint64_t ns) { return TimeText(static_cast<double>(ns)); };
  lines.push_back(stream.name + ": arrival to the last write, " +
                  Counted(latencies.size(), "packet") + ": p50 " + text(median) + ", p99 " +
                  text(p99) + ", max " + text(latencies.back()));
  std::ranges::move(Picture(latencies), std::back_inserter(lines));
  const auto us = [](uint64_t ns) { return static_cast<double>(ns) / 1e3; };
  return {{"stream", stream.name},
          {"packets", latencies.size()},
          {"p50_us", us(median)},
          {"p99_us", us(p99)},
          {"max_us", us(latencies.back())}};
}

/// Through the co-processor and back. Adds to `record`. Returns the exit status.
int LatencyOfLoop(const Context& context, std::vector<std::string>& lines, Json& record) {
  const std::string& relay = context.in.Get("--probe");
  ClickResult result = SendClicks(context.daemon, relay);
  if (result.over) context.out.Message(result.over->what());
  const int end = result.over ? kGaps : kDone;
  std::ranges::sort(result.returned_ms);
  record["probes"] = result.sent;
  record["returned"] = result.returned_ms.size();
  if (result.sent == 0) {
    throw Failure(kNoObject, relay + ": no audio comes; see 'kvoxctl processor status " + relay +
                                 "' and 'kvoxctl why'");
  }
  if (result.returned_ms.empty()) {
    context.out.Message(relay + ": none of " + Counted(result.sent, "click") +
                        " came back; the co-processor must loop the relay's inject buffer back "
                        "to its tap point");
    return kGaps;
  }
  const double median = result.returned_ms[result.returned_ms.size() / 2];
  lines.push_back(relay + ": through the co-processor and back, " +
                  std::to_string(result.returned_ms.size()) + " of " +
                  Counted(result.sent, "click") + " returned: p50 " + TimeText(median * 1e6) +
                  ", max " + TimeText(result.returned_ms.back() * 1e6));
  record["loop_p50_ms"] = median;
  record["loop_max_ms"] = result.returned_ms.back();
  return result.returned_ms.size() < result.sent ? kGaps : end;
}

}  // namespace

int Latency(const Context& context) {
  std::vector<std::string> lines;
  Json loop = {{"probes", nullptr},
               {"returned", nullptr},
               {"loop_p50_ms", nullptr},
               {"loop_max_ms", nullptr}};
  const bool probe = context.in.Has("--probe");
  if (probe && context.in.Has("--flight")) {
    throw UsageError("--probe: clicks need a daemon, not a saved log; leave out --flight");
  }
  StreamOf(context, OpenFlight(context.in));  // before anything is heard
  const int status = probe ? LatencyOfLoop(context, lines, loop) : kDone;
  Json record = LatencyOfDaemon(context, lines);
  record.update(loop);
  context.out.One(lines, record);
  return status;
}

}  // namespace kvox::client
