#include "client/audio/session.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <initializer_list>

#include "client/system/signals.h"

namespace kvox::client {
namespace {

constexpr std::initializer_list<int> kInterrupts = {SIGINT, SIGTERM, SIGHUP};
constexpr auto kHintAfter = std::chrono::seconds(3);
constexpr auto kShowEvery = std::chrono::milliseconds(200);

bool IsTerminal() {
  static const bool terminal = isatty(STDERR_FILENO) == 1;
  return terminal;
}

}  // namespace

Interrupts::Interrupts() {
  BlockSignals(kInterrupts);
}

bool Interrupts::Came() {
  constexpr timespec kNow = {};
  const sigset_t signals = NotIgnored(kInterrupts);
  came_ = came_ || sigtimedwait(&signals, nullptr, &kNow) > 0;
  return came_;
}

bool Interrupts::Pending() {
  sigset_t pending;
  const sigset_t watched = NotIgnored(kInterrupts);
  sigpending(&pending);
  return std::ranges::any_of(kInterrupts, [&](int number) {
    return sigismember(&pending, number) == 1 && sigismember(&watched, number) == 1;
  });
}

void Progress::Show(double seconds, uint64_t missed) {
  const auto now = Clock::now();
  if (!IsTerminal() || now - shown_ < kShowEvery) return;
  shown_ = now;
  const auto tenths = static_cast<unsigned>(seconds * 10);
  fprintf(stderr, "\r%u:%02u.%u  %llu missed ", tenths / 600, tenths / 10 % 60, tenths % 10,
          static_cast<unsigned long long>(missed));
}

void Progress::Note(const std::string& text) {
  Clear();
  fputs(("kvoxctl: " + text + "\n").c_str(), stderr);
}

void Progress::Hint(const std::string& point, bool flows) {
  if (flows || Clock::now() - begin_ < kHintAfter || !hinted_.insert(point).second) return;
  Note("no audio comes from " + point +
       " yet; it has to be enabled and connected, its tap point and I/O on");
}

void Progress::Clear() {
  if (IsTerminal()) fputs("\r\x1b[K", stderr);
}

}  // namespace kvox::client
