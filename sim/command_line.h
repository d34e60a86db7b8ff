// The command line of kvosim, and its texts for help and manual page.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "kvox/common/help_text.h"
#include "sim/simulator.h"

namespace CLI {
class App;
}

namespace kvox::sim {

struct CommandLine {
  RunOptions run;
  std::filesystem::path scenario;
  std::filesystem::path write_default;
  std::filesystem::path source;
  std::filesystem::path recorded;
  bool skip_silence = false;
  std::vector<std::string> command;
};

/// Gives the parser all options and commands; what it reads goes into `line`.
void Describe(CLI::App& app, CommandLine& line);

/// The commands of `kvosim ctl`, the signals, variables of the environment and exit statuses.
std::vector<HelpRow> CtlCommands();
std::vector<HelpRow> Signals();
std::vector<HelpRow> Variables();
std::vector<HelpRow> Exits();

}  // namespace kvox::sim
