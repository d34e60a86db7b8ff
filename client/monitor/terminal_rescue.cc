#include "client/monitor/terminal_rescue.h"

#include <poll.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>

namespace kvox::client {
namespace {

/// A signal that ends a program by default, and its action before.
struct FatalSignal {
  int number;
  struct sigaction before = {};
};

// The others are waited for, see SignalFd.
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

}  // namespace

std::string WithoutDelays(std::string command) {
  for (size_t at = command.find("$<"); at != command.npos; at = command.find("$<", at)) {
    command.erase(at, std::min(command.find('>', at), command.size()) - at + 1);
  }
  return command;
}

TerminalRescue::TerminalRescue() {
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

TerminalRescue::~TerminalRescue() {
  for (const FatalSignal& row : fatal_signals) sigaction(row.number, &row.before, nullptr);
}

void TerminalRescue::SetEndSequence(const std::string& sequence) {
  const size_t size = std::min(sequence.size(), sizeof end_sequence);
  std::copy_n(sequence.begin(), size, end_sequence);
  end_sequence_size = static_cast<sig_atomic_t>(size);
}

}  // namespace kvox::client
