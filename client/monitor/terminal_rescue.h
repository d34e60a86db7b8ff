// Gives the terminal back when a signal that nobody waits for ends the program that has taken it.
#pragma once

#include <string>

namespace kvox::client {

/// A command as terminfo tells it, without its delays ("$<5/>"), which no terminal of today needs.
std::string WithoutDelays(std::string command);

/// While one exists, a crash, an alarm or the like first puts the modes of standard input back as
/// they were when it was made. The signal then does what it does. One at a time, main thread; the
/// handler makes system calls alone.
class TerminalRescue {
 public:
  TerminalRescue();
  ~TerminalRescue();
  TerminalRescue(const TerminalRescue&) = delete;
  TerminalRescue& operator=(const TerminalRescue&) = delete;

  /// Has `commands` sent to standard output as well.
  static void Send(const std::string& commands);
};

}  // namespace kvox::client
