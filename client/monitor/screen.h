// The terminal in full-screen mode, restored afterwards.
#pragma once

#include <string>
#include <vector>

#include "client/monitor/top_text.h"

namespace kvox::client {

struct CursesLibrary;

/// A terminfo command without its delays ("$<5/>"), which no terminal of today needs.
std::string WithoutDelays(std::string command);

/// While one exists, a crash, an alarm or the like first restores the modes that standard input had
/// when it was made. The signal then has its usual effect. One at a time, main thread; the handler
/// only makes system calls.
class TerminalReset {
 public:
  TerminalReset();
  ~TerminalReset();
  TerminalReset(const TerminalReset&) = delete;
  TerminalReset& operator=(const TerminalReset&) = delete;

  /// Also send `sequence` to standard output.
  static void SetEndSequence(const std::string& sequence);
};

/// Throws Failure(kWrongUsage) when standard input or output is not a terminal.
void RequireTerminal();

/// Restores the terminal when it is destroyed. One at a time, main thread.
class Screen {
 public:
  /// Throws Failure(kWrongUsage) when the terminal cannot do it, and what Curses() throws. The
  /// signals that users send have to be blocked, so that none ends the process before the terminal
  /// is restored.
  Screen();
  ~Screen();
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  Size size() const;

  /// Shows the lines, unless the terminal accepts no output at the moment.
  void Show(const std::vector<FrameLine>& lines);

  /// The next key that was pressed: a character or a SpecialKey; -1 when there is none, 0 for other
  /// keys.
  int TakeKey();

  /// To be called when the terminal's size has changed.
  void Resize();

  /// Restores the terminal, until the next Show().
  void Release();

 private:
  const CursesLibrary& curses_;
  TerminalReset reset_;  // made before the library changes the terminal
};

}  // namespace kvox::client
