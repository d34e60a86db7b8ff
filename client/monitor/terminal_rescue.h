// Restores the terminal when a signal that is not waited for ends the program that has taken it
// over.
#pragma once

#include <string>

namespace kvox::client {

/// A terminfo command without its delays ("$<5/>"), which no terminal of today needs.
std::string WithoutDelays(std::string command);

/// While one exists, a crash, an alarm or the like first restores the modes that standard input had
/// when it was made. The signal then has its usual effect. One at a time, main thread; the handler
/// only makes system calls.
class TerminalRescue {
 public:
  TerminalRescue();
  ~TerminalRescue();
  TerminalRescue(const TerminalRescue&) = delete;
  TerminalRescue& operator=(const TerminalRescue&) = delete;

  /// Also send `sequence` to standard output.
  static void SetEndSequence(const std::string& sequence);
};

}  // namespace kvox::client
