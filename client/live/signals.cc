#include "client/live/signals.h"

#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include "client/exit_status.h"
#include "client/held_signals.h"

namespace kvox::client {
namespace {

void OnInterrupt(int) {
  _exit(kDone);
}

}  // namespace

Signals::Signals(std::initializer_list<int> numbers) : held_(HoldSignals(numbers)) {
  if (sigismember(&held_, SIGINT) == 1) signal(SIGINT, OnInterrupt);
  fd_ = signalfd(-1, &held_, SFD_CLOEXEC | SFD_NONBLOCK);
  if (fd_ < 0) {
    throw std::runtime_error(std::string("cannot wait for signals: ") + strerror(errno) +
                             "; close other programs and try again");
  }
}

Signals::~Signals() {
  close(fd_);
}

int Signals::Take() const {
  signalfd_siginfo info{};
  return read(fd_, &info, sizeof info) == sizeof info ? static_cast<int>(info.ssi_signo) : 0;
}

Signals::LetThrough::LetThrough(const Signals& signals) {
  pthread_sigmask(SIG_UNBLOCK, &signals.held_, &before_);
}

Signals::LetThrough::~LetThrough() {
  pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

void DoAsDefault(int number) {
  signal(number, SIG_DFL);
  sigset_t one;
  sigset_t before;
  sigemptyset(&one);
  sigaddset(&one, number);
  raise(number);
  pthread_sigmask(SIG_UNBLOCK, &one, &before);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

int EndBy(int number) {
  if (number != SIGINT) DoAsDefault(number);
  return kDone;
}

}  // namespace kvox::client
