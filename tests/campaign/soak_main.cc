// kvox_soak: many streams for a long time. Nothing may be lost, and nothing may grow.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>

#include "tests/campaign/run.h"

int main(int argc, char** argv) {
  try {
    kvox::campaign::SoakOptions options;
    options.logs = "kvox_soak.logs";
    CLI::App app{"Runs many streams and clients through kvoxd for a long time.", "kvox_soak"};
    app.add_option("MINUTES", options.minutes, "How long (30)")->check(CLI::Range(0.1, 100000.0));
    app.add_option("--seed", options.seed, "Decides what the clients do (1)");
    app.add_option("--logs", options.logs, "Where logs are kept when it fails (kvox_soak.logs)");
    std::string preset;
    app.add_option("--preset", preset, "The build, for the line that says how to repeat the run");
    CLI11_PARSE(app, argc, argv);
    options.repeat = fmt::format("./dev soak {:g}{} --seed {}", options.minutes,
                                 preset.empty() ? "" : " --preset " + preset, options.seed);
    fmt::print("repeat with: {}\n", options.repeat);
    std::fflush(stdout);
    return kvox::campaign::RunSoak(options);
  } catch (const std::exception& error) {
    fprintf(stderr, "kvox_soak: %s\n", error.what());
    return 1;
  }
}
