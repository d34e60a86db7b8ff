// Looking after the daemon: ping and doctor.

#include "client/doctor/findings.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#include "client/command_line/verb.h"
#include "client/doctor/bugreport.h"
#include "client/doctor/gather.h"
#include "client/output/json.h"
#include "kvox/common/fixed_text.h"

namespace kvox::client {
namespace {

constexpr std::chrono::milliseconds kLongestProbe = std::chrono::seconds(5);

double InTenths(double number) {
  return std::round(number * 10) / 10;
}

int Ping(const Context& context) {
  const double round_trip_us = context.daemon.Ping();
  context.out.One({FormatText<64>("kvoxd answers in %.1f us", round_trip_us)},
                  Json::object({{"round_trip_us", InTenths(round_trip_us)}}));
  return kDone;
}

int Count(Verdict verdict, const std::vector<Finding>& findings) {
  return static_cast<int>(std::ranges::count(findings, verdict, &Finding::verdict));
}

int Doctor(const Context& context) {
  const Facts facts =
      GatherFacts(context.in.Get("--captures"),
                  context.in.Has("--timeout") ? context.daemon.wait() : kLongestProbe);
  const std::vector<Finding> findings = Diagnose(facts);
  std::vector<std::string> lines;
  Json records = Json::array();
  for (const Finding& finding : findings) {
    lines.push_back(LineOf(finding));
    records.push_back({{"verdict", NameOf(finding.verdict)},
                       {"check", finding.check},
                       {"object", finding.object},
                       {"cause", finding.cause},
                       {"fix", OrNull(finding.fix)}});
  }
  const int failed = Count(Verdict::kFailed, findings);
  const int warnings = Count(Verdict::kWarning, findings);
  lines.push_back(FormatText<64>("failed: %d, warnings: %d", failed, warnings));
  const bool answered = facts.reply.status == kDone;
  context.out.List(
      lines, "findings", records, 0,
      {{"failed", failed},
       {"warnings", warnings},
       {"round_trip_us", answered ? Json(InTenths(facts.reply.round_trip_us)) : Json()}},
      Painted);
  return failed == 0 ? kDone : kRefused;
}

const char* Notes() {
  return "It only looks: no device is opened and nothing is changed. Rights are those of the user\n"
         "that kvoxd runs as, by owner, group and mode alone; --timeout is 5 s by default.\n"
         "A failure keeps audio or clients away, a warning may cost something.\n";
}

const char* ReportNotes() {
  return "The archive has what doctor, why, graph, export and the like print, the flight log and "
         "its\n"
         "predecessor, the last lines of the log, and facts of the machine; no audio. README.txt "
         "in\n"
         "it says what is what.\n";
}

}  // namespace

std::vector<Verb> DoctorVerbs() {
  return {
      {"ping", "See whether the daemon answers, and how fast", Ping, "ping"},
      {"doctor", "Diagnose the daemon, its devices and its clients, and suggest fixes", Doctor,
       "doctor", Arguments{},
       Options{{"--captures", "DIRECTORY", Kind::kFile,
                "Where captures are to go (/tmp, or the service's home)"}},
       Notes, VerbKind::kCheck},
      {"bugreport", "Collect what an expert needs to see in one archive", BugReport,
       "bugreport /tmp/report.tar.gz",
       Arguments{{"FILE", Kind::kFile, "A file that does not exist (kvox-bugreport-DATE.tar.gz)",
                  Arity::kOptional}},
       Options{}, ReportNotes, VerbKind::kLocal},
  };
}

}  // namespace kvox::client
