#include "client/completion/completion.h"

#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <string_view>

#include "client/completion/candidates.h"
#include "client/completion/names.h"
#include "client/held_signals.h"
#include "client/standard_streams.h"

namespace kvox::client {
namespace {

/// People wait for it at a key; a daemon takes a millisecond.
constexpr suseconds_t kLongestUs = 250'000;

void OnExpired(int) {
  _exit(kDone);
}

void EndSoon() {
  signal(SIGALRM, OnExpired);
  LetAlarmThrough();
  itimerval timer{};
  timer.it_value.tv_usec = kLongestUs;
  setitimer(ITIMER_REAL, &timer, nullptr);
}

bool BeginsWith(std::string_view word, std::string_view typed, bool ignore_case) {
  const auto same = [&](unsigned char a, unsigned char b) {
    return a == b || (ignore_case && std::tolower(a) == std::tolower(b));
  };
  return word.size() >= typed.size() && std::equal(typed.begin(), typed.end(), word.begin(), same);
}

/// A name that would not stand on one line is no word that anybody could type.
bool IsPrintable(std::string_view word) {
  return std::none_of(word.begin(), word.end(),
                      [](unsigned char c) { return std::iscntrl(c) != 0; });
}

void Print(const std::vector<std::string>& words, const Candidates& wanted) {
  std::string text;
  for (const std::string& word : words) {
    if (word.empty() || !IsPrintable(word)) continue;
    if (!BeginsWith(word, wanted.typed, IgnoresCase(wanted.kind))) continue;
    text += wanted.before + word + "\n";
  }
  PrintOut(text);
}

}  // namespace

int Complete(const std::vector<std::string>& words) {
  EndSoon();
  const Candidates wanted = CandidatesFor(words);
  if (wanted.kind == Kind::kFile) {
    PrintOut(std::string(kFilesWanted) + "\n");
    return kDone;
  }
  Print(wanted.words, wanted);
  try {
    Daemon daemon(kNoLimit);
    Print(AllNames(wanted.kind, wanted.typed, daemon), wanted);
  } catch (const Failure&) {
    // No daemon, no names.
  }
  return kDone;
}

}  // namespace kvox::client
