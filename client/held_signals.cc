#include "client/held_signals.h"

#include <pthread.h>

namespace kvox::client {

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

sigset_t HoldSignals(std::initializer_list<int> numbers) {
  const sigset_t held = NotIgnored(numbers);
  pthread_sigmask(SIG_BLOCK, &held, nullptr);
  return held;
}

void LetAlarmThrough() {
  sigset_t alarm;
  sigemptyset(&alarm);
  sigaddset(&alarm, SIGALRM);
  pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
}

}  // namespace kvox::client
