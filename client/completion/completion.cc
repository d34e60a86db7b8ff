#include "client/completion/completion.h"

#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <iterator>
#include <string_view>

#include "client/calls/call_table.h"
#include "client/completion/candidates.h"
#include "client/model/snapshot.h"
#include "client/output/standard_streams.h"
#include "client/system/signals.h"

namespace kvox::client {
namespace {

using Names = std::vector<std::string>;

Names Processors(Daemon& daemon) {
  Names names;
  for (const Processor& processor : AskProcessors(daemon).items) names.push_back(processor.id);
  return names;
}

Names Taps(Daemon& daemon, const std::string& typed) {
  std::vector<TapPoint> taps;
  for (const int core : kGraphCores) {
    auto told = AskTaps(daemon, core);
    std::move(told.items.begin(), told.items.end(), std::back_inserter(taps));
  }
  const bool with_core = !typed.empty() && std::isdigit(static_cast<unsigned char>(typed[0])) != 0;
  Names names;
  for (const TapPoint& tap : taps) {
    const auto namesakes = std::count_if(taps.begin(), taps.end(), [&](const TapPoint& other) {
      return other.Name() == tap.Name();
    });
    names.push_back(with_core || namesakes > 1 ? tap.FullName() : tap.Name());
  }
  return names;
}

Names Buffers(Daemon& daemon, std::initializer_list<Direction> directions) {
  Names names;
  for (const Direction direction : directions) {
    for (const Buffer& buffer : AskBuffers(daemon, direction).items) names.push_back(buffer.name);
  }
  return names;
}

Names Cores() {
  Names names;
  for (const int core : kGraphCores) names.push_back(std::to_string(core));
  return names;
}

Names Methods() {
  Names names;
  for (const std::string& method : DescribeMethods()) {
    names.push_back(method.substr(0, method.find(' ')));
  }
  return names;
}

std::vector<std::string> AllNames(Kind kind, const std::string& typed, Daemon& daemon) {
  switch (kind) {
    case Kind::kProcessor:
      return Processors(daemon);
    case Kind::kProcessorType:
      return AskTypes(daemon).items;
    case Kind::kTap:
      return Taps(daemon, typed);
    case Kind::kCore:
      return Cores();
    case Kind::kTapOut:
      return Buffers(daemon, {Direction::kTapOut});
    case Kind::kInject:
      return Buffers(daemon, {Direction::kInject});
    case Kind::kBuffer:
      return Buffers(daemon, {Direction::kTapOut, Direction::kInject});
    case Kind::kUseCase:
      return AskUseCases(daemon).items;
    case Kind::kParameter:
      return AskParameters(daemon).items;
    case Kind::kMethod:
      return Methods();
    case Kind::kText:
    case Kind::kNumber:
    case Kind::kChoice:
    case Kind::kFile:
      break;
  }
  return {};
}

bool IgnoresCase(Kind kind) {
  return kind == Kind::kUseCase || kind == Kind::kParameter;
}

/// People wait for it at a key; a daemon takes a millisecond.
constexpr suseconds_t kLongestUs = 250'000;

void OnExpired(int) {
  _exit(kDone);
}

void EndSoon() {
  signal(SIGALRM, OnExpired);
  UnblockAlarm();
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
