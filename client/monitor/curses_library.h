// The ncurses library, loaded when it is first needed: no other verb pays for it.
#pragma once

// Its macros would hide its functions, and our enumerators.
#define NCURSES_NOMACROS 1
#include <ncurses.h>
#undef OK

namespace kvox::client {

#define KVOX_CURSES_FUNCTIONS(F)                                                           \
  F(newterm)                                                                               \
  F(endwin)                                                                                \
  F(cbreak) F(noecho) F(curs_set) F(keypad) F(nodelay) F(set_escdelay) F(wgetch) F(werase) \
      F(wmove) F(wattrset) F(waddnstr) F(wrefresh) F(resizeterm)

/// The functions we use, with the library's own types.
struct CursesLibrary {
#define KVOX_DECLARE(function) decltype(&::function) function = nullptr;
  KVOX_CURSES_FUNCTIONS(KVOX_DECLARE)
#undef KVOX_DECLARE
  char* (*tigetstr)(const char*) = nullptr;
  WINDOW** screen = nullptr;
};

/// Throws Failure(kFailed), which names the package and the alternative.
const CursesLibrary& Curses();

}  // namespace kvox::client
