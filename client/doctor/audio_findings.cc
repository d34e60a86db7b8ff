// Findings about the audio of the last minute.

#include "client/doctor/findings.h"
#include "libkvox/units.h"

namespace kvox::client {

void CheckAudio(const Facts& facts, std::vector<Finding>& findings) {
  if (!facts.has_flight_log) return;
  Subject all("audio", "audio", findings);
  const std::string when = " in the last " + TimeText(static_cast<double>(facts.covered_ns));
  if (facts.incidents.empty()) return all.Ok("no packet was lost or late" + when);
  for (const Incident& incident : facts.incidents) {
    Subject stream("audio", "stream " + incident.stream, findings);
    const std::string cause = CountsOf(incident) + when + ": " + CauseText(incident.blame);
    const std::string fix = "kvoxctl why " + incident.stream;
    const Cause by = incident.blame.cause;
    const bool wanted = by == Cause::kRewired || by == Cause::kNoRoute;
    if (IsLoss(incident) && !wanted) {
      stream.Fail(cause, fix);
    } else {
      stream.Warn(cause, fix);
    }
  }
}

}  // namespace kvox::client
