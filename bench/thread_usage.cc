#include "bench/thread_usage.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace kvox::bench {
namespace {

using std::filesystem::path;

std::string ReadLine(const path& file) {
  std::string line;
  std::ifstream stream(file);
  std::getline(stream, line);
  return line;
}

/// The word behind `label` and its colon, in a file of such lines.
std::string Field(const path& file, std::string_view label) {
  std::ifstream stream(file);
  for (std::string line; std::getline(stream, line);) {
    const size_t colon = line.find(':');
    if (colon == line.npos || line.substr(0, line.find_first_of(" \t:")) != label) continue;
    std::istringstream rest(line.substr(colon + 1));
    std::string word;
    rest >> word;
    return word;
  }
  return "";
}

uint64_t Number(const std::string& word) {
  return word.empty() ? 0 : std::stoull(word);
}

/// User and system time, the 14th and 15th word; the second one, in brackets, may hold blanks.
double TickedCpuNs(const path& thread) {
  const std::string line = ReadLine(thread / "stat");
  std::istringstream words(line.substr(line.rfind(')') + 1));
  std::string skipped;
  for (int i = 3; i < 14; ++i) words >> skipped;
  double user = 0;
  double system = 0;
  words >> user >> system;
  return (user + system) * 1e9 / static_cast<double>(sysconf(_SC_CLK_TCK));
}

double CpuNs(const path& thread) {
  const std::string schedstat = ReadLine(thread / "schedstat");
  if (!schedstat.empty()) return std::stod(schedstat);
  const std::string milliseconds = Field(thread / "sched", "se.sum_exec_runtime");
  if (!milliseconds.empty()) return std::stod(milliseconds) * 1e6;
  return TickedCpuNs(thread);
}

}  // namespace

ProcessUsage ReadUsage(pid_t pid, std::string_view prefix) {
  ProcessUsage usage;
  const path tasks = path("/proc") / std::to_string(pid) / "task";
  for (const auto& entry : std::filesystem::directory_iterator(tasks)) {
    const path& thread = entry.path();
    const bool chosen = ReadLine(thread / "comm").starts_with(prefix);
    ThreadUsage& sum = chosen ? usage.chosen : usage.others;
    sum.cpu_ns += CpuNs(thread);
    sum.sleeps += Number(Field(thread / "status", "voluntary_ctxt_switches"));
    sum.preemptions += Number(Field(thread / "status", "nonvoluntary_ctxt_switches"));
  }
  return usage;
}

uint64_t ReadResidentKib(pid_t pid) {
  return Number(Field(path("/proc") / std::to_string(pid) / "status", "VmRSS"));
}

}  // namespace kvox::bench
