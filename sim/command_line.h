// The command line of kvosim, and its texts for help and manual page.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "kvox/common/help_text.h"
#include "sim/recording/recorder.h"
#include "sim/recording/replay.h"
#include "sim/simulator.h"

namespace kvox::sim {

struct CommandLine {
  std::string command;  // "record", "replay", "compare" and so on; empty to simulate
  RunOptions run;
  RecordOptions record;
  ReplayOptions replay;
  bool no_audio = false;
  std::filesystem::path scenario;
  std::filesystem::path write_default;
  std::filesystem::path source;
  std::filesystem::path recorded;
  bool skip_silence = false;
  std::vector<std::string> ctl_words;
  std::string shell;
};

/// Reads the program's arguments into `line`. With --help, --version or a mistake it prints what is
/// to be printed, and returns the exit status.
std::optional<int> ReadCommandLine(int argc, char** argv, CommandLine& line);

/// Exit statuses of the program.
inline constexpr int kFailed = 1;
inline constexpr int kUsage = 2;

// What --help shows, for the manual page as well.

struct CommandHelp {
  HelpRow command;
  std::vector<HelpRow> options;
};

/// The options of the program itself.
std::vector<HelpRow> Options();
std::vector<CommandHelp> Commands();

// What may follow on the command line, for shells to complete.

struct PlaceOption {
  std::string name;  // "--seconds"
  std::string help;
  std::string value;  // "N"; "" for a flag

  bool takes_file() const { return value.starts_with("FILE") || value == "DIR"; }
};

/// What may follow behind the words of a command: "", "ctl", "ctl fault".
struct Place {
  std::string words;
  std::vector<PlaceOption> options = {};
  std::vector<HelpRow> next = {};  // words
  bool files = false;
};
std::vector<Place> Places();

/// The commands of `kvosim ctl`, the signals, variables of the environment and exit statuses.
std::vector<HelpRow> CtlCommands();
std::vector<HelpRow> Signals();
std::vector<HelpRow> Variables();
std::vector<HelpRow> Exits();

}  // namespace kvox::sim
