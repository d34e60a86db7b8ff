#include "client/monitor/terminal_rescue.h"

#include <poll.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>

namespace kvox::client {
namespace {

/// A signal that ends a program by default, and what was to be done about it.
struct Deadly {
  int number;
  struct sigaction before = {};
};

// Those that can be waited for are, see SignalFd.
Deadly deadly[] = {{SIGABRT}, {SIGALRM}, {SIGBUS}, {SIGFPE},  {SIGILL},    {SIGIO},  {SIGPROF},
                   {SIGPWR},  {SIGSEGV}, {SIGSYS}, {SIGTRAP}, {SIGVTALRM}, {SIGXFSZ}};

termios modes_before = {};
char commands_at_end[256];
volatile sig_atomic_t commands_size = 0;

void GiveBack() {
  if (tcgetpgrp(STDIN_FILENO) != getpgrp()) return;  // somebody else has it now
  tcsetattr(STDIN_FILENO, TCSANOW, &modes_before);
  pollfd out = {STDOUT_FILENO, POLLOUT, 0};  // one that takes nothing must not keep us
  if (poll(&out, 1, 0) == 1) {
    static_cast<void>(!write(STDOUT_FILENO, commands_at_end, static_cast<size_t>(commands_size)));
  }
}

void OnDeadly(int number) {
  GiveBack();
  for (const Deadly& row : deadly) {
    if (row.number == number) sigaction(number, &row.before, nullptr);
  }
  raise(number);  // it comes when this has returned
}

}  // namespace

std::string WithoutDelays(std::string command) {
  for (size_t at = command.find("$<"); at != command.npos; at = command.find("$<", at)) {
    command.erase(at, std::min(command.find('>', at), command.size()) - at + 1);
  }
  return command;
}

TerminalRescue::TerminalRescue() {
  tcgetattr(STDIN_FILENO, &modes_before);
  commands_size = 0;
  for (Deadly& row : deadly) {
    sigaction(row.number, nullptr, &row.before);
    if (row.before.sa_handler == SIG_IGN) continue;
    struct sigaction action {};
    action.sa_handler = OnDeadly;
    sigaction(row.number, &action, nullptr);
  }
}

TerminalRescue::~TerminalRescue() {
  for (const Deadly& row : deadly) sigaction(row.number, &row.before, nullptr);
}

void TerminalRescue::Send(const std::string& commands) {
  const size_t size = std::min(commands.size(), sizeof commands_at_end);
  std::copy_n(commands.begin(), size, commands_at_end);
  commands_size = static_cast<sig_atomic_t>(size);
}

}  // namespace kvox::client
