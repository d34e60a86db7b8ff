#include "client/completion/completion.h"

#include <algorithm>
#include <string_view>

#include "client/calls/arguments.h"
#include "client/calls/call_table.h"
#include "client/completion/candidates.h"
#include "client/model/snapshot.h"

namespace kvox::client {
namespace {

using Names = std::vector<std::string>;

/// Users wait for it at a key; a daemon takes a millisecond.
constexpr std::chrono::milliseconds kLongestWaitAtKey{250};

Names Processors(Daemon& daemon) {
  Names names;
  for (const Processor& processor : QueryProcessors(daemon).rows) names.push_back(processor.id);
  return names;
}

/// "imic.0"; "2:imic.0" where several cores have one of that name, or where `typed` starts with a
/// number.
Names Taps(Daemon& daemon, const std::string& typed) {
  std::vector<int> silent;
  const std::vector<TapPoint> taps = QueryTaps(daemon, kAllCores, silent).rows;
  const bool with_core = !typed.empty() && typed[0] >= '0' && typed[0] <= '9';
  Names names;
  for (const TapPoint& tap : taps) {
    const auto namesakes = std::count_if(taps.begin(), taps.end(), [&](const TapPoint& other) {
      return other.Name() == tap.Name();
    });
    names.push_back(with_core || namesakes > 1 ? tap.FullName() : tap.Name());
  }
  return names;
}

Names Buffers(const TableReply<Buffer>& buffers) {
  Names names;
  for (const Buffer& buffer : buffers.rows) names.push_back(buffer.name);
  return names;
}

Names Cores() {
  Names names;
  for (const int core : kAllCores) names.push_back(std::to_string(core));
  return names;
}

Names Methods() {
  Names names;
  for (const std::string& method : DescribeMethods()) {
    names.push_back(method.substr(0, method.find(' ')));
  }
  return names;
}

/// The names that the daemon has at the moment for objects of the kind; none for kinds without
/// names. Throws Failure.
Names AllNames(Kind kind, const std::string& typed, Daemon& daemon) {
  switch (kind) {
    case Kind::kProcessor:
      return Processors(daemon);
    case Kind::kProcessorType:
      return QueryTypes(daemon).rows;
    case Kind::kTap:
      return Taps(daemon, typed);
    case Kind::kCore:
      return Cores();
    case Kind::kTapOut:
      return Buffers(QueryBuffers(daemon, Direction::kTapOut));
    case Kind::kInject:
      return Buffers(QueryBuffers(daemon, Direction::kInject));
    case Kind::kBuffer:
      return Buffers(QueryBuffers(daemon));
    case Kind::kUseCase:
      return QueryUseCases(daemon).rows;
    case Kind::kParameter:
      return QueryParameters(daemon).rows;
    case Kind::kMethod:
      return Methods();
    default:
      return {};
  }
}

/// False for names that would not fit on one line: nobody could type them.
bool IsPrintable(std::string_view word) {
  return std::none_of(word.begin(), word.end(),
                      [](unsigned char c) { return c < ' ' || c == 0x7f; });
}

void Print(const Names& words, const Candidates& wanted) {
  const bool any_case = wanted.kind == Kind::kUseCase || wanted.kind == Kind::kParameter;
  const auto in_case = [&](const std::string& word) { return any_case ? Uppercase(word) : word; };
  std::string text;
  for (const std::string& word : words) {
    if (word.empty() || !IsPrintable(word)) continue;
    if (in_case(word).starts_with(in_case(wanted.typed))) text += wanted.before + word + "\n";
  }
  PrintOut(text);
}

}  // namespace

int Complete(const Names& words) {
  const CallDeadline deadline(nullptr, kDone, kLongestWaitAtKey);
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
