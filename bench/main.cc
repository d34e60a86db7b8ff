// Compares kvoxd with minimal programs that do the same work.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <set>
#include <string>
#include <vector>

#include "bench/bare_calls.h"
#include "bench/benchmarks.h"
#include "bench/relay.h"
#include "bench/scheduling.h"

namespace {

using namespace kvox::bench;

/// How much is measured.
struct Plan {
  PacketWorkload packets;
  CommandWorkload commands;
  unsigned client_runs;
  unsigned idle_s;
  unsigned top_s;
};

constexpr Plan kFullPlan = {.packets = {.rounds = 9, .ping_pongs = 20000, .periods = 200},
                            .commands = {.rounds = 9, .calls = 5000, .client_ms = 3000},
                            .client_runs = 500,
                            .idle_s = 5,
                            .top_s = 10};
constexpr Plan kQuickPlan = {.packets = {.rounds = 5, .ping_pongs = 4000, .periods = 40},
                             .commands = {.rounds = 5, .calls = 1000, .client_ms = 1000},
                             .client_runs = 100,
                             .idle_s = 2,
                             .top_s = 4};

constexpr PacketCase kPacketCases[] = {
    {Pattern::kPingPong, 1920, 1, 1.15}, {Pattern::kPingPong, 38400, 1, 1.10},
    {Pattern::kPaced, 1920, 8, 1.15},    {Pattern::kPaced, 1920, 32, 1.15},
    {Pattern::kPaced, 38400, 8, 1.10},
};

/// Runs the role of a child process. Returns false when the words name no role.
bool RunRole(const std::vector<std::string>& words, int& status) {
  if (words.size() == 3 && words[0] == "relay") {
    status = RunRelay(words[1], static_cast<unsigned>(std::stoul(words[2])));
  } else if (words.size() == 4 && words[0] == "bare-server") {
    status = RunBareServer(words[1], {std::stoul(words[2]), std::stoul(words[3])});
  } else if (words.size() == 3 && words[0] == "client") {
    status = RunClient(std::stoll(words[1]), std::stoll(words[2]));
  } else {
    return false;
  }
  return true;
}

struct Options {
  bool quick = false;
  std::string only;  // one group's name; empty for all
  std::string json;
};

uint64_t MeasureCases(Pattern pattern, const Plan& plan, Report& report) {
  uint64_t faults = 0;
  for (const PacketCase& packet_case : kPacketCases) {
    if (packet_case.pattern == pattern) faults += MeasurePackets(packet_case, plan.packets, report);
  }
  return faults;
}

/// Groups of measurements, in the order in which they run. Each returns its count of faults.
constexpr struct {
  const char* name;
  uint64_t (*measure)(const Plan& plan, Report& report);
} kGroups[] = {
    {"ping-pong",
     [](auto& plan, auto& report) { return MeasureCases(Pattern::kPingPong, plan, report); }},
    {"paced", [](auto& plan, auto& report) { return MeasureCases(Pattern::kPaced, plan, report); }},
    {"record",
     [](auto& plan, auto& report) {
       return MeasureRecorder({Pattern::kPaced, 1920, 8, 0}, plan.packets, report);
     }},
    {"calls",
     [](auto& plan, auto& report) {
       MeasureCommands(plan.commands, report);
       return MeasureParallelClients(plan.commands, report);
     }},
    {"client",
     [](auto& plan, auto& report) {
       MeasureClientProcess(plan.client_runs, report);
       return uint64_t{0};
     }},
    {"idle",
     [](auto& plan, auto& report) {
       MeasureIdle(plan.idle_s, report);
       return uint64_t{0};
     }},
    {"top", [](auto& plan, auto& report) { return MeasureTop(plan.top_s, report); }},
};

std::set<std::string> GroupNames() {
  std::set<std::string> names;
  for (const auto& group : kGroups) names.insert(group.name);
  return names;
}

int Measure(const Options& options) {
  const Plan& plan = options.quick ? kQuickPlan : kFullPlan;
  const bool realtime = RaisePriority();
  DropPriority();
  fmt::print("{} run; real-time priority {}\n", options.quick ? "Quick" : "Full",
             realtime ? "is allowed" : "is not allowed: relay and daemon run without it");
  Report report;
  uint64_t faults = 0;
  for (const auto& group : kGroups) {
    if (options.only.empty() || options.only == group.name) faults += group.measure(plan, report);
  }
  if (!options.json.empty()) report.WriteJson(options.json);
  fmt::print("\n{} aims missed, {} packets or calls lost or wrong\n", report.missed(), faults);
  return faults == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    int status = 0;
    if (RunRole(std::vector<std::string>(argv + 1, argv + argc), status)) return status;
    Options options;
    CLI::App app{"Measures kvoxd against the least a program can do for the same work.",
                 "kvox_bench"};
    app.add_flag("--quick", options.quick, "Well under a minute instead of a few");
    app.add_option("--only", options.only, "One group of measurements")
        ->check(CLI::IsMember(GroupNames()));
    app.add_option("--json", options.json, "Also write the outcome into this file");
    CLI11_PARSE(app, argc, argv);
    return Measure(options);
  } catch (const std::exception& error) {
    fprintf(stderr, "kvox_bench: %s\n", error.what());
    return 1;
  }
}
