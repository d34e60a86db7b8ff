#include <algorithm>
#include <cmath>

#include "client/command_line/verb.h"
#include "client/doctor/findings.h"
#include "client/doctor/gather.h"
#include "kvox/common/fixed_text.h"

namespace kvox::client {
namespace {

constexpr std::chrono::milliseconds kLongestQuestion = std::chrono::seconds(5);

Fields FieldsOf(const Finding& finding) {
  return {{"verdict", std::string(NameOf(finding.verdict))},
          {"check", std::string(finding.check)},
          {"object", finding.object},
          {"cause", finding.cause},
          {"fix", NameOr(finding.fix)}};
}

int64_t CountOf(Verdict verdict, const std::vector<Finding>& findings) {
  return std::count_if(findings.begin(), findings.end(),
                       [&](const Finding& finding) { return finding.verdict == verdict; });
}

Value RoundTrip(const DaemonReply& answer) {
  if (answer.status != kDone) return nullptr;
  return std::round(answer.round_trip_us * 10) / 10;
}

int Doctor(const Context& context) {
  const Facts facts =
      Gather(context.in.Get("--captures"),
             context.in.Has("--timeout") ? context.daemon.wait() : kLongestQuestion);
  const std::vector<Finding> findings = Judge(facts);
  std::vector<std::string> lines;
  std::vector<Fields> records;
  for (const Finding& finding : findings) {
    lines.push_back(LineOf(finding));
    records.push_back(FieldsOf(finding));
  }
  const int64_t failed = CountOf(Verdict::kFailed, findings);
  const int64_t warnings = CountOf(Verdict::kWarning, findings);
  lines.push_back(FormatText<64>("failed: %d, warnings: %d", static_cast<int>(failed),
                                 static_cast<int>(warnings)));
  context.out.List(
      lines, "findings", records, 0,
      {{"failed", failed}, {"warnings", warnings}, {"round_trip_us", RoundTrip(facts.answer)}},
      Painted);
  return failed == 0 ? kDone : kRefused;
}

const char* Notes() {
  return "It only looks: no device is opened and nothing is changed. Rights are those of the user\n"
         "that kvoxd runs as, by owner, group and mode alone; --timeout is 5 s unless it is "
         "given.\n"
         "A failure keeps audio or clients away, a warning may cost something.\n";
}

}  // namespace

std::vector<Verb> DoctorVerbs() {
  return {
      {"",
       "doctor",
       "See what keeps the daemon, its devices or its clients from working, and how to mend it",
       {},
       {{"--captures", "DIRECTORY", Kind::kFile,
         "Where captures are to go (/tmp, or the service's home)"}},
       "doctor",
       Doctor,
       Notes,
       Manner::kChecks},
  };
}

}  // namespace kvox::client
