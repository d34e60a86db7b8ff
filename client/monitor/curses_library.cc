#include "client/monitor/curses_library.h"

#include <dlfcn.h>

#include <string>

#include "client/errors.h"

namespace kvox::client {
namespace {

template <typename Pointer>
bool Load(void* handle, const char* name, Pointer& pointer) {
  pointer = handle == nullptr ? nullptr : reinterpret_cast<Pointer>(dlsym(handle, name));
  return pointer != nullptr;
}

CursesLibrary LoadAll() {
  CursesLibrary library;
  void* handle = dlopen("libncursesw.so.6", RTLD_NOW);
  if (handle == nullptr) handle = dlopen("libncurses.so.6", RTLD_NOW);
  bool complete = Load(handle, "tigetstr", library.tigetstr);
  complete = complete && Load(handle, "stdscr", library.screen);
#define KVOX_LOAD(function) complete = complete && Load(handle, #function, library.function);
  KVOX_CURSES_FUNCTIONS(KVOX_LOAD)
#undef KVOX_LOAD
  if (complete) return library;
  const char* const cause = dlerror();
  throw Failure(kFailed, std::string("top: ncurses cannot be used: ") +
                             (cause != nullptr ? cause : "unknown version") +
                             "; install the package libncursesw6, or use 'kvoxctl top --batch'");
}

}  // namespace

const CursesLibrary& Curses() {
  static const CursesLibrary library = LoadAll();
  return library;
}

}  // namespace kvox::client
