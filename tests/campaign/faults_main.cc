// kvox_faults: injects faults while audio flows through kvoxd and clients send commands.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <random>
#include <set>
#include <string>

#include "tests/campaign/fault_kinds.h"
#include "tests/campaign/run.h"

namespace {

using namespace kvox::campaign;

constexpr double kQuickSeconds = 40;

std::set<std::string> KindNames() {
  std::set<std::string> names;
  for (const FaultKind& kind : FaultKinds()) names.insert(kind.name);
  return names;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    CampaignOptions options;
    options.logs = "kvox_faults.logs";
    options.seed = std::random_device()() % 100000;
    std::string preset;
    CLI::App app{"Injects faults while audio flows and clients give commands.", "kvox_faults"};
    double seconds = 0;
    app.add_flag("--quick", options.quick, "Without the kinds that take long, and for 40 s");
    app.add_option("--seconds", seconds, "No new fault after that time");
    bool endurance = false;
    app.add_flag("--endurance", endurance, "10000 flaps and 300 recoveries in a row");
    app.add_option("--seed", options.seed, "Decides what happens (random)");
    app.add_option("--count", options.count, "How many faults (100)");
    app.add_option("--only", options.only, "One kind of faults")->check(CLI::IsMember(KindNames()));
    app.add_option("--logs", options.logs, "Where logs are kept when it fails (kvox_faults.logs)");
    app.add_option("--preset", preset, "The build, for the line that says how to repeat the run");
    CLI11_PARSE(app, argc, argv);
    if (options.quick && seconds == 0) seconds = kQuickSeconds;
    options.time = Ms(static_cast<int64_t>(seconds * 1000));
    options.repeat = fmt::format("./dev faults{}{}{} --seed {}", options.quick ? " --quick" : "",
                                 options.only.empty() ? "" : " --only " + options.only,
                                 preset.empty() ? "" : " --preset " + preset, options.seed);
    options.repeat += endurance ? " --endurance" : fmt::format(" --count {}", options.count);
    fmt::print("repeat with: {}\n", options.repeat);
    std::fflush(stdout);
    return endurance ? RunEndurance(options) : RunCampaign(options);
  } catch (const std::exception& error) {
    fprintf(stderr, "kvox_faults: %s\n", error.what());
    return 1;
  }
}
