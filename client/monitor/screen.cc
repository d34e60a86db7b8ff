#include "client/monitor/screen.h"

#include <dlfcn.h>
// Its macros would hide its functions, and our enumerators.
#define NCURSES_NOMACROS 1
#include <ncurses.h>
#undef OK
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "kvox/common/fixed_text.h"
#include "libkvox/errors.h"

namespace kvox::client {

// clang-format off
#define KVOX_CURSES_FUNCTIONS(F)                                                        \
  F(newterm) F(endwin) F(cbreak) F(noecho) F(curs_set) F(keypad) F(nodelay)             \
  F(set_escdelay) F(wgetch) F(werase) F(wmove) F(wattrset) F(waddnstr) F(wrefresh)      \
  F(resizeterm) F(has_colors) F(start_color) F(use_default_colors) F(init_pair) F(COLOR_PAIR)
// clang-format on

/// The functions of ncurses that we use, with the library's own types. Loaded when top needs them,
/// so that no other verb pays for it.
struct CursesLibrary {
#define KVOX_DECLARE(function) decltype(&::function) function = nullptr;
  KVOX_CURSES_FUNCTIONS(KVOX_DECLARE)
#undef KVOX_DECLARE
  char* (*tigetstr)(const char*) = nullptr;
  WINDOW** screen = nullptr;
};

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

/// Throws Failure(kFailed), which names the package and the alternative.
const CursesLibrary& Curses() {
  static const CursesLibrary library = LoadAll();
  return library;
}

/// A signal that ends a program by default, and its action before.
struct FatalSignal {
  int number;
  struct sigaction before = {};
};

// The others are polled, see SignalFd.
FatalSignal fatal_signals[] = {{SIGABRT}, {SIGALRM},   {SIGBUS}, {SIGFPE},  {SIGILL},
                               {SIGIO},   {SIGPROF},   {SIGPWR}, {SIGSEGV}, {SIGSYS},
                               {SIGTRAP}, {SIGVTALRM}, {SIGXFSZ}};

termios modes_before = {};
char end_sequence[256];
volatile sig_atomic_t end_sequence_size = 0;

void Restore() {
  if (tcgetpgrp(STDIN_FILENO) != getpgrp()) return;  // another program has it now
  tcsetattr(STDIN_FILENO, TCSANOW, &modes_before);
  pollfd out = {STDOUT_FILENO, POLLOUT, 0};  // does not wait for one that accepts no output
  if (poll(&out, 1, 0) == 1) {
    static_cast<void>(!write(STDOUT_FILENO, end_sequence, static_cast<size_t>(end_sequence_size)));
  }
}

void OnFatal(int number) {
  Restore();
  for (const FatalSignal& row : fatal_signals) {
    if (row.number == number) sigaction(number, &row.before, nullptr);
  }
  raise(number);  // delivered when this has returned
}

constexpr int kDelete = 127;
constexpr int kEscapeDelayMs = 25;  // between the bytes of one key
constexpr char kAlternative[] = "; 'kvoxctl top --batch' needs no terminal";

constexpr short kAlarmPair = 1;

/// Without colors an alarm is bold.
attr_t AttributeOf(const CursesLibrary& curses, Style style) {
  constexpr attr_t kAttributes[] = {A_NORMAL, A_BOLD, A_REVERSE, A_DIM, A_BOLD};  // in its order
  const attr_t attribute = kAttributes[static_cast<int>(style)];
  const bool colored = style == Style::kAlarm && curses.has_colors();
  return colored ? attribute | static_cast<attr_t>(curses.COLOR_PAIR(kAlarmPair)) : attribute;
}

bool OutputReady() {
  pollfd out = {STDOUT_FILENO, POLLOUT, 0};
  return poll(&out, 1, 0) == 1 && (out.revents & POLLOUT) != 0;
}

[[noreturn]] void RefuseTerminal() {
  const char* const type = getenv("TERM");
  throw Failure(kWrongUsage, "top: the terminal type '" + ValidUtf8(type == nullptr ? "" : type) +
                                 "' is unknown or cannot place text; set TERM to the right one" +
                                 kAlternative);
}

/// Leaves the screen, shows the cursor and resets the keypad; terminals lack some of these.
std::string EndSequence(const CursesLibrary& curses) {
  std::string sequence;
  for (const char* const name : {"rmcup", "cnorm", "rmkx"}) {
    const char* const command = curses.tigetstr(name);
    // The library returns -1 for capabilities that are not strings.
    if (command == nullptr || reinterpret_cast<intptr_t>(command) == -1) continue;
    sequence += WithoutDelays(command);
  }
  return sequence;
}

}  // namespace

std::string WithoutDelays(std::string command) {
  for (size_t at = command.find("$<"); at != command.npos; at = command.find("$<", at)) {
    command.erase(at, std::min(command.find('>', at), command.size()) - at + 1);
  }
  return command;
}

TerminalReset::TerminalReset() {
  tcgetattr(STDIN_FILENO, &modes_before);
  end_sequence_size = 0;
  for (FatalSignal& row : fatal_signals) {
    sigaction(row.number, nullptr, &row.before);
    if (row.before.sa_handler == SIG_IGN) continue;
    struct sigaction action {};
    action.sa_handler = OnFatal;
    sigaction(row.number, &action, nullptr);
  }
}

TerminalReset::~TerminalReset() {
  for (const FatalSignal& row : fatal_signals) sigaction(row.number, &row.before, nullptr);
}

void TerminalReset::SetEndSequence(const std::string& sequence) {
  const size_t size = std::min(sequence.size(), sizeof end_sequence);
  std::copy_n(sequence.begin(), size, end_sequence);
  end_sequence_size = static_cast<sig_atomic_t>(size);
}

void RequireTerminal() {
  if (isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1) return;
  throw Failure(kWrongUsage,
                std::string("top: standard input and output are not a terminal") + kAlternative);
}

Screen::Screen() : curses_(Curses()) {
  if (curses_.newterm(nullptr, stdout, stdin) == nullptr) RefuseTerminal();
  if (curses_.tigetstr("cup") == nullptr) {
    Release();
    RefuseTerminal();
  }
  TerminalReset::SetEndSequence(EndSequence(curses_));
  curses_.cbreak();
  curses_.noecho();
  curses_.curs_set(0);
  curses_.set_escdelay(kEscapeDelayMs);
  curses_.keypad(*curses_.screen, true);
  curses_.nodelay(*curses_.screen, true);
  if (curses_.has_colors()) {
    curses_.start_color();
    curses_.use_default_colors();
    curses_.init_pair(kAlarmPair, COLOR_RED, -1);
  }
}

Screen::~Screen() {
  Release();
}

Size Screen::size() const {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0) {
    return {};
  }
  return {size.ws_row, size.ws_col};
}

void Screen::Show(const std::vector<FrameLine>& lines) {
  if (!OutputReady()) return;
  WINDOW* const screen = *curses_.screen;
  curses_.werase(screen);
  for (size_t i = 0; i < lines.size(); ++i) {
    curses_.wmove(screen, static_cast<int>(i), 0);
    curses_.wattrset(screen, static_cast<int>(AttributeOf(curses_, lines[i].style)));
    curses_.waddnstr(screen, lines[i].text.c_str(), static_cast<int>(lines[i].text.size()));
  }
  curses_.wattrset(screen, A_NORMAL);
  curses_.wrefresh(screen);
}

int Screen::TakeKey() {
  constexpr struct {
    int code;
    int key;
  } kKeys[] = {{ERR, -1},
               {KEY_UP, kKeyUp},
               {KEY_DOWN, kKeyDown},
               {KEY_HOME, kKeyHome},
               {KEY_PPAGE, kKeyPageUp},
               {KEY_NPAGE, kKeyPageDown},
               {KEY_END, kKeyEnd},
               {KEY_LEFT, kKeyLeft},
               {KEY_RIGHT, kKeyRight},
               {KEY_BACKSPACE, kKeyBackspace},
               {kDelete, kKeyBackspace}};
  const int code = curses_.wgetch(*curses_.screen);
  for (const auto& row : kKeys) {
    if (row.code == code) return row.key;
  }
  return code < KEY_MIN ? code : 0;
}

void Screen::Resize() {
  const Size now = size();
  curses_.resizeterm(now.lines, now.columns);
}

void Screen::Release() {
  // After Ctrl-S the output would wait for Ctrl-Q. A program can only resume what a program has
  // suspended.
  tcflow(STDOUT_FILENO, TCOOFF);
  tcflow(STDOUT_FILENO, TCOON);
  curses_.endwin();
}

}  // namespace kvox::client
