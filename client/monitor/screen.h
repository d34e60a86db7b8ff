// The terminal, taken over for a full-screen view and given back as it was.
#pragma once

#include <vector>

#include "client/monitor/frame.h"
#include "client/monitor/terminal_rescue.h"

namespace kvox::client {

struct CursesLibrary;

/// Throws Failure(kWrongUsage) when standard input or output is no terminal.
void RequireTerminal();

/// The terminal is given back with the object, at the latest. One at a time, main thread.
class Screen {
 public:
  /// Throws Failure(kWrongUsage) when the terminal cannot do it, and what Curses() throws. SignalFd
  /// that come from people have to be held, so that none ends the process with the terminal taken.
  Screen();
  ~Screen();
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  Size size() const;

  /// Shows the lines, unless the terminal takes no output just now.
  void Show(const std::vector<FrameLine>& lines);

  /// The next key that was pressed: a character or a SpecialKey; -1 when there is none. Others are
  /// 0.
  int TakeKey();

  /// Takes note of the terminal's new size.
  void Resize();

  /// Gives the terminal back, until the next Show().
  void GiveBack();

 private:
  const CursesLibrary& curses_;
  TerminalRescue rescue_;  // before the library changes the terminal
};

}  // namespace kvox::client
