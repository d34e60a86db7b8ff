// Completion of kvoxctl's words. The shell's script runs kvoxctl each time to find out what may
// follow at the cursor.
#pragma once

#include <string>
#include <vector>

#include "client/command_line/verb.h"

namespace kvox::client {

/// The option for such a run: kvoxctl --complete tap info im
constexpr char kCompletionOption[] = "--complete";

/// Printed instead of words: a file name is expected, which the shell can complete itself.
constexpr char kFilesWanted[] = ":files";

/// Prints what the last of the words after the program's name may be, one per line, and returns the
/// exit status. Never takes long: names that the daemon does not return at once are omitted, and
/// failures are silent. Main thread, before any thread starts.
int Complete(const std::vector<std::string>& words);

/// The script for bash. zsh.h and fish.h have the others; all run kvoxctl in the same way.
const char* BashCompletion();

/// What may follow, according to the table of verbs.
struct Candidates {
  std::vector<std::string> words = {};
  Kind kind = Kind::kText;  // names of this kind as well
  std::string before = {};  // "--color=" where a value follows its option in one word
  std::string typed = {};   // what the names and words must start with
};

/// `words` are those after the program's name; the last is the one to complete, "" when nothing of
/// it has been typed.
Candidates CandidatesFor(const std::vector<std::string>& words);

}  // namespace kvox::client
