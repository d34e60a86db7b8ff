#include "bench/thread_usage.h"

#include <unistd.h>

#include <string>

#include "tests/support/proc.h"
#include "tests/support/process.h"

namespace kvox::bench {
namespace {

using std::filesystem::path;

/// User and system time, the 14th and 15th word; the second one, in brackets, may hold blanks.
double TickedCpuNs(const std::string& stat) {
  const auto words = Words(stat.substr(stat.rfind(')') + 1));
  if (words.size() < 13) return 0;
  return (std::stod(words[11]) + std::stod(words[12])) * 1e9 /
         static_cast<double>(sysconf(_SC_CLK_TCK));
}

double CpuNs(const path& thread) {
  const std::string schedstat = ReadText(thread / "schedstat");
  if (!schedstat.empty()) return std::stod(schedstat);
  const std::string milliseconds = ProcField(thread / "sched", "se.sum_exec_runtime");
  if (!milliseconds.empty()) return std::stod(milliseconds) * 1e6;
  return TickedCpuNs(ReadText(thread / "stat"));
}

uint64_t Count(const path& thread, const char* key) {
  return std::stoull("0" + ProcField(thread / "status", key));
}

}  // namespace

ProcessUsage ReadUsage(pid_t pid, std::string_view prefix) {
  ProcessUsage usage;
  for (const path& thread : Entries(ProcPath(pid) / "task")) {
    const bool chosen = ReadText(thread / "comm").starts_with(prefix);
    (chosen ? usage.chosen : usage.others) +=
        {CpuNs(thread), Count(thread, "voluntary_ctxt_switches"),
         Count(thread, "nonvoluntary_ctxt_switches")};
  }
  return usage;
}

}  // namespace kvox::bench
