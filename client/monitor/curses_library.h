// The ncurses library, loaded when it is first needed: no other verb pays for it.
#pragma once

// Its macros would hide its functions, and our enumerators.
#define NCURSES_NOMACROS 1
#include <ncurses.h>
#undef OK

namespace kvox::client {

/// The functions we use, with the library's own types.
struct CursesLibrary {
  decltype(&::newterm) newterm = nullptr;
  decltype(&::endwin) endwin = nullptr;
  decltype(&::cbreak) cbreak = nullptr;
  decltype(&::noecho) noecho = nullptr;
  decltype(&::curs_set) curs_set = nullptr;
  decltype(&::keypad) keypad = nullptr;
  decltype(&::nodelay) nodelay = nullptr;
  decltype(&::set_escdelay) set_escdelay = nullptr;
  decltype(&::wgetch) wgetch = nullptr;
  decltype(&::werase) werase = nullptr;
  decltype(&::wmove) wmove = nullptr;
  decltype(&::wattrset) wattrset = nullptr;
  decltype(&::waddnstr) waddnstr = nullptr;
  decltype(&::wrefresh) wrefresh = nullptr;
  decltype(&::resizeterm) resizeterm = nullptr;
  char* (*tigetstr)(const char*) = nullptr;
  WINDOW** screen = nullptr;
};

/// Throws Failure(kFailed), which names the package and the other way.
const CursesLibrary& Curses();

}  // namespace kvox::client
