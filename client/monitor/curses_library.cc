#include "client/monitor/curses_library.h"

#include <dlfcn.h>

#include <string>

#include "client/errors.h"

namespace kvox::client {
namespace {

/// Takes functions and variables from a library, and remembers whether all were there.
class Loader {
 public:
  Loader() {
    for (const char* name : {"libncursesw.so.6", "libncurses.so.6"}) {
      if (handle_ == nullptr) handle_ = dlopen(name, RTLD_NOW);
    }
  }

  template <typename Pointer>
  void Take(const char* name, Pointer& pointer) {
    pointer = handle_ == nullptr ? nullptr : reinterpret_cast<Pointer>(dlsym(handle_, name));
    complete_ = complete_ && pointer != nullptr;
  }

  bool complete() const { return complete_; }

 private:
  void* handle_ = nullptr;
  bool complete_ = true;
};

CursesLibrary Load() {
  CursesLibrary library;
  Loader loader;
  loader.Take("newterm", library.newterm);
  loader.Take("endwin", library.endwin);
  loader.Take("cbreak", library.cbreak);
  loader.Take("noecho", library.noecho);
  loader.Take("curs_set", library.curs_set);
  loader.Take("keypad", library.keypad);
  loader.Take("nodelay", library.nodelay);
  loader.Take("set_escdelay", library.set_escdelay);
  loader.Take("wgetch", library.wgetch);
  loader.Take("werase", library.werase);
  loader.Take("wmove", library.wmove);
  loader.Take("wattrset", library.wattrset);
  loader.Take("waddnstr", library.waddnstr);
  loader.Take("wrefresh", library.wrefresh);
  loader.Take("resizeterm", library.resizeterm);
  loader.Take("tigetstr", library.tigetstr);
  loader.Take("stdscr", library.screen);
  if (loader.complete()) return library;
  const char* const cause = dlerror();
  throw Failure(kFailed, std::string("top: ncurses cannot be used: ") +
                             (cause != nullptr ? cause : "unknown version") +
                             "; install the package libncursesw6, or use 'kvoxctl top --batch'");
}

}  // namespace

const CursesLibrary& Curses() {
  static const CursesLibrary library = Load();
  return library;
}

}  // namespace kvox::client
