#include "client/system/signals.h"

#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include "libkvox/errors.h"

namespace kvox::client {
namespace {

sigset_t Only(int number) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, number);
  return signals;
}

void OnInterrupt(int) {
  _exit(kDone);
}

}  // namespace

sigset_t NotIgnored(std::initializer_list<int> numbers) {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : numbers) {
    struct sigaction action {};
    sigaction(number, nullptr, &action);
    if (action.sa_handler != SIG_IGN) sigaddset(&signals, number);
  }
  return signals;
}

sigset_t BlockSignals(std::initializer_list<int> numbers) {
  const sigset_t signals = NotIgnored(numbers);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

SignalFd::SignalFd(std::initializer_list<int> numbers) : blocked_(BlockSignals(numbers)) {
  if (sigismember(&blocked_, SIGINT) == 1) signal(SIGINT, OnInterrupt);
  fd_ = signalfd(-1, &blocked_, SFD_CLOEXEC | SFD_NONBLOCK);
  if (fd_ < 0) {
    throw std::runtime_error(std::string("cannot wait for signals: ") + strerror(errno) +
                             "; close other programs and try again");
  }
}

SignalFd::~SignalFd() {
  close(fd_);
}

int SignalFd::Take() const {
  signalfd_siginfo info{};
  return read(fd_, &info, sizeof info) == sizeof info ? static_cast<int>(info.ssi_signo) : 0;
}

SignalFd::Unblocked::Unblocked(const SignalFd& signals) {
  pthread_sigmask(SIG_UNBLOCK, &signals.blocked_, &before_);
}

SignalFd::Unblocked::~Unblocked() {
  pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

void RaiseDefault(int number) {
  signal(number, SIG_DFL);
  const sigset_t one = Only(number);
  sigset_t before;
  raise(number);
  pthread_sigmask(SIG_UNBLOCK, &one, &before);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

int EndBySignal(int number) {
  if (number != SIGINT) RaiseDefault(number);
  return kDone;
}

}  // namespace kvox::client
