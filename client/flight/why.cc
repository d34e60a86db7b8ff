// The verb why: what went wrong with the audio, the cause, the evidence, and what to do.

#include <algorithm>

#include "client/flight/log_file.h"
#include "client/flight/verbs.h"
#include "client/output/json.h"
#include "kvox/common/fixed_text.h"
#include "libkvox/flight/incidents.h"
#include "libkvox/units.h"

namespace kvox::client {
namespace {

constexpr double kLast_s = 60;

double Ms(uint64_t ns) {
  return static_cast<double>(ns) * 1e-6;
}

void AddLines(const FlightView& flight, const Incident& incident, std::vector<std::string>& lines) {
  std::string when = LocalTime(flight, incident.first_ns);
  if (incident.last_ns != incident.first_ns) when += " to " + LocalTime(flight, incident.last_ns);
  lines.push_back("  " + when + "  " + CauseText(incident.blame) + ": " + CountsOf(incident));
  if (!incident.blame.evidence.empty()) {
    lines.push_back("    evidence: packet " + std::to_string(incident.first_number) + ": " +
                    incident.blame.evidence);
  }
  lines.push_back(std::string("    what to do: ") + Advice(incident.blame.cause));
}

Json RecordOf(const FlightView& flight, const Incident& incident) {
  return {{"stream", incident.stream},
          {"cause", CauseWord(incident.blame.cause)},
          {"culprit", OrNull(incident.blame.culprit)},
          {"evidence", incident.blame.evidence},
          {"advice", Advice(incident.blame.cause)},
          {"first_ms", Ms(WallNs(flight, incident.first_ns))},
          {"last_ms", Ms(WallNs(flight, incident.last_ns))},
          {"packet", incident.first_number},
          {"count", CountOf(incident)},
          {"lost", incident.lost},
          {"late", incident.late},
          {"early", incident.early},
          {"repeated", incident.repeated},
          {"interruptions", incident.interruptions},
          {"longest_ms", Ms(incident.longest_ns)}};
}

/// What the stream's own records cover, and what they do not.
std::string Summary(const FlightView& flight, const StreamView& stream,
                    const std::vector<Incident>& incidents, uint64_t from_ns) {
  uint64_t lost = 0;
  for (const Incident& incident : incidents) lost += incident.lost;
  const auto begin =
      std::ranges::lower_bound(stream.packets, from_ns, {}, &PacketRecord::arrived_ns);
  const auto packets = static_cast<uint64_t>(stream.packets.end() - begin);
  std::string text = stream.name + ": " + Counted(packets, "packet") + ", " +
                     (lost == 0 ? "none" : std::to_string(lost)) + " lost";
  const uint64_t since_ns = CoveredFrom(stream, from_ns);
  if (since_ns > from_ns) {
    const uint64_t end_ns = std::max(EndOf(flight), since_ns);
    text += " (its records reach back " + TimeText(static_cast<double>(end_ns - since_ns)) + ")";
  }
  if (stream.torn > 1) text += "; " + Counted(stream.torn, "record") + " cannot be read";
  return text;
}

}  // namespace

int Why(const Context& context) {
  const FlightView flight = OpenFlight(context.in);
  const uint64_t from_ns = BeginOf(context.in, flight, kLast_s);
  std::vector<std::string> lines;
  Json records = Json::array();
  bool lost = false;
  const uint64_t end_ns = EndOf(flight);
  uint64_t covered_from_ns = from_ns;
  for (const StreamView* const stream : StreamsOf(context.in, flight)) {
    const std::vector<Incident> incidents = FindIncidents(flight, *stream, from_ns);
    lines.push_back(Summary(flight, *stream, incidents, from_ns));
    covered_from_ns = std::max(covered_from_ns, CoveredFrom(*stream, from_ns));
    for (const Incident& incident : incidents) {
      AddLines(flight, incident, lines);
      records.push_back(RecordOf(flight, incident));
      lost = lost || IsLoss(incident);
    }
  }
  if (lines.empty()) lines.push_back("no stream has been on since kvoxd started");
  if (!flight.live) {
    lines.push_back("this log is not written any more; it ends at " + LocalDate(flight, end_ns) +
                    " " + LocalTime(flight, end_ns));
  }
  if (flight.unrecorded > 0) {
    lines.push_back(std::to_string(flight.unrecorded) +
                    " time(s) a stream found no place in the log: what it lost is not here");
  }
  context.out.List(lines, "causes", records, 0,
                   {{"audio_lost", lost},
                    {"covered_ms", Ms(end_ns - std::min(end_ns, covered_from_ns))},
                    {"live", flight.live},
                    {"unrecorded", flight.unrecorded}},
                   [](const std::string& line) { return line; });
  return lost ? kGaps : kDone;
}

}  // namespace kvox::client
