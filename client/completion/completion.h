// Completion of kvoxctl's words. The shell's script asks kvoxctl itself, each time, what may stand
// where the cursor is.
#pragma once

#include <string>
#include <vector>

namespace kvox::client {

/// As the first word it turns the rest into a question: kvoxctl --complete tap info im
constexpr char kCompletionDoor[] = "--complete";

/// Printed alone in place of words: a file is wanted, whose name the shell can complete itself.
constexpr char kFilesWanted[] = ":files";

/// Prints what the last of the words behind the program's name may be, a line each, and answers the
/// exit status. Never takes long: what the daemon does not tell within a moment is left out, and a
/// failure makes for silence. Main thread, first of all.
int Complete(const std::vector<std::string>& words);

/// The script for bash.
const char* BashCompletion();

}  // namespace kvox::client
