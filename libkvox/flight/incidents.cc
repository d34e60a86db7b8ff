#include "libkvox/flight/incidents.h"

#include <algorithm>

#include "kvox/common/fixed_text.h"
#include "libkvox/units.h"

namespace kvox::client {
namespace {

/// Packets that are lost when a process switches a stream off or connects it anew.
constexpr uint64_t kOnTheirWay = 1;
constexpr uint64_t kApartNs = 2'000'000'000;
/// For how long a packet that is late or early may explain later ones.
constexpr uint64_t kExplainsNs = 10'000'000'000;
/// A damaged log may have as many incidents as packets.
constexpr ptrdiff_t kRecent = 100;

struct CauseRow {
  Cause cause;
  const char* word;
  const char* text;  // %s: the culprit
  const char* advice;
};

constexpr std::array<CauseRow, kCauses> kCauseRows{{
    {Cause::kCoprocessorLate, "coprocessor_late", "the co-processor sent packets late",
     "look at the load and the clock of the co-processor"},
    {Cause::kCoprocessorEarly, "coprocessor_early", "the co-processor sent packets early",
     "look at the clock of the co-processor, and whether its block length is what the tap shows"},
    {Cause::kCoprocessorSkipped, "coprocessor_skipped", "the co-processor skipped packets",
     "look whether the co-processor, or the driver's queue, drops packets"},
    {Cause::kCoprocessorRepeated, "coprocessor_repeated", "the co-processor sent packets twice",
     "look at the firmware: each packet needs a new number"},
    {Cause::kDeviceLate, "device_late", "the device delivered packets late",
     "look at the driver: interrupts, wake-ups, power states between the co-processor and the "
     "node"},
    {Cause::kNoProcessorTime, "no_cpu", "kvoxd's thread got no processor",
     "see what else runs at real-time priority, and give kvoxd that right: kvoxctl doctor"},
    {Cause::kProcessorSlow, "processor_slow", "processor %s took too long",
     "shorten its work, or use longer blocks: kvoxctl tap block-length"},
    {Cause::kProcessorRefused, "processor_refused", "processor %s returned errors",
     "compare its format with that of the tap: kvoxctl graph"},
    {Cause::kClientLate, "client_late", "the client of processor %s replied too late",
     "make the client return sooner from ReceiveAudio, or use longer blocks"},
    {Cause::kClientRefused, "client_refused", "the client of processor %s refused packets",
     "see whether the client still runs"},
    {Cause::kClientDied, "client_died", "the client of processor %s died",
     "see the client's own log; it may register again"},
    {Cause::kInjectFull, "inject_full", "%s took no packets in time",
     "look whether the co-processor reads that device"},
    {Cause::kInjectGone, "inject_gone", "writing to %s failed",
     "look whether the node is there and has a reader"},
    {Cause::kRewired, "rewired", "%s changed the connections",
     "nothing, if that was wanted; else change them while the audio is off"},
    {Cause::kNoRoute, "no_route", "no processor reads the buffer", "connect one: kvoxctl connect"},
    {Cause::kRestart, "coprocessor_restarted", "devices left and returned",
     "if the co-processor did not restart on purpose, look at its own log"},
    {Cause::kJunk, "junk", "the stream contained bytes that are no packet",
     "look at the driver: reads must end with a packet"},
    {Cause::kReadErrors, "read_errors", "reading the device failed",
     "see the errors in kvoxd's log, and the driver's"},
    {Cause::kUndecided, "undecided", "the evidence does not decide why",
     "save the log for an expert: kvoxctl flight save"},
}};

const CauseRow& RowOf(Cause cause) {
  return *std::ranges::find(kCauseRows, cause, &CauseRow::cause);
}

/// What is wrong with a record, in the order in which it is asked about. The packet before the
/// first one of a new numbering is part of that.
std::vector<Symptom> SymptomsOf(const std::vector<PacketRecord>& packets, size_t index) {
  const PacketRecord& packet = packets[index];
  const auto is_first = [&](size_t i) { return (packets[i].flags & flight::kFirst) != 0; };
  if ((packet.flags & flight::kRepeated) != 0) {
    const bool renumbered = index + 1 < packets.size() && is_first(index + 1);
    return renumbered ? std::vector<Symptom>() : std::vector{Symptom::kRepeated};
  }
  std::vector<Symptom> symptoms;
  const bool follows = index > 0 && !is_first(index);  // the first record has lost its predecessor
  if (index > 0 && is_first(index)) symptoms.push_back(Symptom::kInterrupted);
  if (follows && packet.arrival == flight::Arrival::kLate) symptoms.push_back(Symptom::kLate);
  if (follows && packet.arrival == flight::Arrival::kEarly) symptoms.push_back(Symptom::kEarly);
  if (index > 0 && packet.missing > 0) symptoms.push_back(Symptom::kMissing);
  if (packet.loss != flight::Loss::kNone) symptoms.push_back(Symptom::kLost);
  return symptoms;
}

/// `late_ns` is how much later than its period the packet came; `interval_ns` since the one before.
void Add(Symptom symptom, const PacketRecord& packet, int64_t late_ns, uint64_t interval_ns,
         Incident& incident) {
  incident.last_ns = packet.arrived_ns;
  switch (symptom) {
    case Symptom::kLate:
      // The daemon compares with one period, whatever is missing.
      if (packet.missing > 0 && late_ns < int64_t{packet.period_ns} / 4) break;
      ++incident.late;
      incident.longest_ns =
          std::max(incident.longest_ns, static_cast<uint64_t>(std::max<int64_t>(late_ns, 0)));
      break;
    case Symptom::kEarly:
      ++incident.early;
      break;
    case Symptom::kMissing:
      incident.lost += packet.missing;
      break;
    case Symptom::kLost:
      ++incident.lost;
      break;
    case Symptom::kRepeated:
      ++incident.repeated;
      break;
    case Symptom::kInterrupted:
      ++incident.interruptions;
      incident.longest_ns = std::max(incident.longest_ns, interval_ns);
      break;
  }
}

/// The incident that the symptom belongs to; a new one, unless there is one of late.
Incident& IncidentOf(const Blame& blame, const StreamView& stream, const PacketRecord& packet,
                     std::vector<Incident>& incidents) {
  const auto oldest = incidents.rbegin() + std::min(std::ssize(incidents), kRecent);
  const auto same = std::find_if(incidents.rbegin(), oldest, [&](const Incident& one) {
    return one.blame.cause == blame.cause && one.blame.culprit == blame.culprit &&
           packet.arrived_ns < one.last_ns + kApartNs;
  });
  if (same != oldest) return *same;
  incidents.push_back({.stream = stream.name,
                       .blame = blame,
                       .first_ns = packet.arrived_ns,
                       .first_number = packet.number});
  return incidents.back();
}

}  // namespace

std::string CauseText(const Blame& blame) {
  std::string text = RowOf(blame.cause).text;
  const size_t at = text.find("%s");
  if (at != text.npos) text.replace(at, 2, blame.culprit);
  return text;
}

const char* CauseWord(Cause cause) {
  return RowOf(cause).word;
}

const char* Advice(Cause cause) {
  return RowOf(cause).advice;
}

uint64_t CountOf(const Incident& incident) {
  if (incident.lost > 0) return incident.lost;
  return incident.late + incident.early + incident.repeated + incident.interruptions;
}

std::string CountsOf(const Incident& incident) {
  std::string text;
  const std::string longest = TimeText(static_cast<double>(incident.longest_ns));
  const auto add = [&](uint64_t count, const std::string& words) {
    if (count > 0) text += (text.empty() ? "" : ", ") + words;
  };
  add(incident.interruptions,
      "audio interrupted " + Counted(incident.interruptions, "time") + ", for up to " + longest);
  add(incident.lost, Counted(incident.lost, "packet") + " lost");
  add(incident.late, std::to_string(incident.late) + " late" +
                         (incident.interruptions > 0 ? "" : " by up to " + longest));
  add(incident.early, std::to_string(incident.early) + " early");
  add(incident.repeated, std::to_string(incident.repeated) + " sent twice");
  return text;
}

bool IsLoss(const Incident& incident) {
  const bool wanted = incident.blame.cause == Cause::kRewired && incident.lost <= kOnTheirWay;
  return !wanted && (incident.lost > 0 || incident.interruptions > 0);
}

uint64_t CoveredFrom(const StreamView& stream, uint64_t from_ns) {
  const bool all = stream.packets.size() + stream.torn + 1 < flight::kPackets;
  if (all || stream.packets.empty()) return from_ns;
  return std::max(from_ns, stream.packets.front().arrived_ns);
}

std::vector<Incident> FindIncidents(const FlightView& flight, const StreamView& stream,
                                    uint64_t from_ns, uint64_t until_ns) {
  Investigation investigation(flight, stream);
  std::vector<Incident> incidents;
  for (size_t i = 0; i < stream.packets.size(); ++i) {
    const PacketRecord& packet = stream.packets[i];
    if (packet.arrived_ns + kExplainsNs < from_ns) continue;
    const PacketRecord& before = stream.packets[PacketBefore(stream.packets, i)];
    const uint64_t interval_ns = packet.arrived_ns - std::min(packet.arrived_ns, before.arrived_ns);
    for (const Symptom symptom : SymptomsOf(stream.packets, i)) {
      const Blame blame = investigation.Of(symptom, i);
      if (packet.arrived_ns < from_ns || packet.arrived_ns >= until_ns) continue;
      Add(symptom, packet, investigation.ErrorNs(i), interval_ns,
          IncidentOf(blame, stream, packet, incidents));
    }
  }
  return incidents;
}

}  // namespace kvox::client
