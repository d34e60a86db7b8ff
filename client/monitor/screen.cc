#include "client/monitor/screen.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "client/errors.h"
#include "client/monitor/curses_library.h"
#include "kvox/common/fixed_text.h"

namespace kvox::client {
namespace {

constexpr int kEscapeDelayMs = 25;  // between the bytes of one key
constexpr char kAlternative[] = "; 'kvoxctl top --batch' needs no terminal";

attr_t AttributeOf(Style style) {
  constexpr attr_t kAttributes[] = {A_NORMAL, A_BOLD, A_REVERSE};  // in Style's order
  return kAttributes[static_cast<int>(style)];
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
  TerminalRescue::SetEndSequence(EndSequence(curses_));
  curses_.cbreak();
  curses_.noecho();
  curses_.curs_set(0);
  curses_.set_escdelay(kEscapeDelayMs);
  curses_.keypad(*curses_.screen, true);
  curses_.nodelay(*curses_.screen, true);
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
    curses_.wattrset(screen, static_cast<int>(AttributeOf(lines[i].style)));
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
               {KEY_END, kKeyEnd}};
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
