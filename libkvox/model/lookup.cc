#include "libkvox/model/lookup.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <utility>

#include "kvox/common/fixed_text.h"
#include "kvox/common/four_cc.h"
#include "kvox/common/near_matches.h"
#include "libkvox/calls/arguments.h"

namespace kvox::client {
namespace {

constexpr char kRelayType[] = "arel";

bool AllDigits(std::string_view word) {
  return !word.empty() && word.find_first_not_of("0123456789") == word.npos;
}

/// A number from 0 to 255.
std::optional<int> ParseSmallNumber(std::string_view word) {
  const auto number = AllDigits(word) ? ParseInt(word) : std::nullopt;
  return number && *number <= UINT8_MAX ? number : std::nullopt;
}

/// Suggests names of `items`; `name` is a member of them.
template <typename T, typename Name>
Failure Missing(const std::string& what, const std::string& word, const std::vector<T>& items,
                Name name, const char* hint) {
  std::vector<std::string> names;
  for (const T& item : items) names.push_back(std::invoke(name, item));
  return Failure(kNoObject, NotFound(what, word, names, hint));
}

/// The name of a four-character code as lists show it.
std::string ShownName(int32_t code) {
  const std::string name = ToString(static_cast<FourCc>(code));
  return ValidUtf8(name.substr(0, name.find_last_not_of(' ') + 1));
}

std::pair<ProcessorId, Processor> Find(Daemon& daemon, const std::string& word) {
  const auto processors = QueryProcessors(daemon).rows;
  if (const auto* found = FindProcessor(processors, word)) return {{CodeOf(word), word}, *found};
  if (const auto code = ParseCode(word)) {
    const auto* const found = FindProcessor(processors, ShownName(*code));
    if (found != nullptr) return {{*code, ToString(static_cast<FourCc>(*code))}, *found};
  }
  throw Missing("processor", word, processors, &Processor::id,
                "'kvoxctl processor list' shows all");
}

TapWord RequireTapWord(const std::string& word) {
  if (auto tap = ParseTapWord(word)) return *tap;
  throw UsageError("TAP: '" + ValidUtf8(word) +
                   "' is not a tap point's name such as imic.0 or 2:imic.0");
}

/// Whether a tap point is one that the word names.
auto Matches(const TapWord& wanted) {
  return [wanted](const TapPoint& tap) {
    return tap.code == wanted.code && (!wanted.core || tap.core == *wanted.core) &&
           (!wanted.index || tap.index == *wanted.index);
  };
}

Failure Ambiguous(const std::string& word, const std::vector<TapPoint>& taps) {
  std::string candidates;
  for (const TapPoint& tap : taps) candidates += " " + tap.FullName();
  return Failure(kWrongUsage, "TAP: '" + word + "' may be any of" + candidates + "; name one");
}

/// Every tap point of some cores. Throws Failure when none of them replies.
std::vector<TapPoint> ListTaps(Daemon& daemon, const std::vector<int>& cores) {
  MissingCores missing;
  auto taps = QueryTaps(daemon, cores, missing).rows;
  if (taps.empty() && !missing.silent.empty()) throw Failure(kRefused, SilenceOf(missing.silent));
  return taps;
}

/// The buffers of a reply, with those whose rows the daemon has truncated.
std::vector<Buffer> AllOf(TableReply<Buffer> reply) {
  std::ranges::move(reply.truncated, std::back_inserter(reply.rows));
  return std::move(reply.rows);
}

/// The buffers that a word names.
std::vector<Buffer> Select(const std::vector<Buffer>& buffers, const std::string& word,
                           const std::string& what) {
  const auto id = ParseSmallNumber(word);
  std::vector<Buffer> found;
  for (const Buffer& buffer : buffers) {
    if (buffer.name == word || (id && buffer.id == *id)) found.push_back(buffer);
  }
  if (!found.empty()) return found;
  throw Missing(what, word, buffers, &Buffer::name, "'kvoxctl buffer list' shows all");
}

}  // namespace

ProcessorId ProcessorNamed(Daemon& daemon, const std::string& word) {
  // "5" may be the name of one processor and the number of another.
  if (CanBeProcessor(word) && !ParseInt(word)) return {CodeOf(word), word};
  return LookUpProcessor(daemon, word);
}

ProcessorId LookUpProcessor(Daemon& daemon, const std::string& word) {
  return Find(daemon, word).first;
}

ProcessorId LookUpRelay(Daemon& daemon, const std::string& word) {
  const auto [id, processor] = Find(daemon, word);
  if (processor.type == kRelayType) return id;
  throw UsageError("PROCESSOR: " + id.name + " is of type " + processor.type +
                   ", and only relays (type " + kRelayType +
                   ") have clients; 'kvoxctl processor list' shows types");
}

bool CanBeProcessor(const std::string& name) {
  return !name.empty() && name.size() <= 4 && name.front() != ' ' && name.back() != ' ' &&
         std::all_of(name.begin(), name.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

ProcessorId NewProcessorId(const std::string& argument, const std::string& word) {
  const auto code = ParseCode(word);
  const std::string name = code ? ToString(static_cast<FourCc>(*code)) : "";
  if (name.size() == 4 && CanBeProcessor(ShownName(*code))) return {*code, name};
  throw UsageError(argument + ": '" + ValidUtf8(word) +
                   "' is not four printable characters, the first of them no blank, or their "
                   "number such as 0x70617373");
}

ProcessorId LookUpType(Daemon& daemon, const std::string& word) {
  const auto types = QueryTypes(daemon).rows;
  if (std::ranges::count(types, word) > 0) return {CodeOf(word), word};
  throw Missing("processor type", word, types, std::identity(),
                "'kvoxctl processor types' shows all");
}

std::optional<TapWord> ParseTapWord(const std::string& word) {
  TapWord tap;
  std::string rest = word;
  const size_t colon = rest.find(':');
  if (colon != rest.npos && AllDigits(rest.substr(0, colon))) {
    tap.core = ParseSmallNumber(rest.substr(0, colon));
    if (!tap.core) return std::nullopt;
    rest.erase(0, colon + 1);
  }
  const size_t dot = rest.rfind('.');
  if (dot != rest.npos && AllDigits(rest.substr(dot + 1))) {
    tap.index = ParseSmallNumber(rest.substr(dot + 1));
    if (!tap.index) return std::nullopt;
    rest.resize(dot);
  }
  if (rest.empty() || rest.size() > 4) return std::nullopt;
  tap.code = rest;
  return tap;
}

TapPoint TapNamed(Daemon& daemon, const std::string& word) {
  const TapWord wanted = RequireTapWord(word);
  if (!wanted.index) return LookUpTap(daemon, word);
  TapPoint tap{.core = wanted.core.value_or(0), .code = wanted.code, .index = *wanted.index};
  if (wanted.core) return tap;
  std::vector<TapPoint> found;
  // Most tap points are on the first core: it comes last, so that it need not be queried when no
  // other core has the name. Whatever is done to the tap point then shows whether it exists.
  for (auto core = kAllCores.rbegin(); core != kAllCores.rend(); ++core) {
    tap.core = *core;
    if (found.empty() && core + 1 == kAllCores.rend()) return tap;
    const auto info =
        daemon.Call("TapInfo", &IKvox::TapInfo, tap.core, CodeOf(tap.code), tap.index);
    if (info.status == IKvox::CommandStatus::OK) found.insert(found.begin(), tap);
  }
  if (found.size() > 1) throw Ambiguous(word, found);
  return found.front();
}

TapPoint LookUpTap(Daemon& daemon, const std::string& word) {
  const TapWord wanted = RequireTapWord(word);
  std::vector<TapPoint> taps =
      ListTaps(daemon, wanted.core ? std::vector<int>{*wanted.core} : kAllCores);
  if (wanted.core && !std::ranges::any_of(taps, Matches(wanted))) {
    taps = ListTaps(daemon, kAllCores);  // it may be on another core
  }
  return SelectTap(taps, word);
}

TapPoint SelectTap(const std::vector<TapPoint>& taps, const std::string& word) {
  const TapWord wanted = RequireTapWord(word);
  std::vector<TapPoint> found;
  std::ranges::copy_if(taps, std::back_inserter(found), Matches(wanted));
  if (found.size() > 1) throw Ambiguous(word, found);
  if (found.size() == 1) return found.front();
  throw Missing("tap point", word, taps, wanted.core ? &TapPoint::FullName : &TapPoint::Name,
                "'kvoxctl tap list' shows all");
}

Buffer LookUpBuffer(Daemon& daemon, const std::string& word) {
  const auto found = Select(AllOf(QueryBuffers(daemon)), word, "buffer");
  if (found.size() == 1) return found.front();
  throw UsageError("BUFFER: '" + word + "' may be " + found[0].name + " or " + found[1].name +
                   "; name one");
}

int32_t BufferOrNoneNamed(Daemon& daemon, Direction direction, const std::string& word) {
  std::string_view digits = word;
  if (digits.starts_with(BufferPrefix(direction))) {
    digits.remove_prefix(BufferPrefix(direction).size());
  }
  // "tapout03" is a name as well, but not that of buffer 3.
  const auto number = ParseSmallNumber(digits);
  return number && std::to_string(*number) == digits ? *number
                                                     : LookUpBufferOrNone(daemon, direction, word);
}

int32_t LookUpBufferOrNone(Daemon& daemon, Direction direction, const std::string& word) {
  const bool none = word == "none" || word == "-" || word == "-1";
  return none ? -1 : LookUpBuffer(daemon, direction, word);
}

int32_t LookUpBuffer(Daemon& daemon, Direction direction, const std::string& word) {
  const std::string what = std::string(NameOf(direction)) + " buffer";
  return Select(AllOf(QueryBuffers(daemon, direction)), word, what).front().id;
}

std::string UseCaseNamed(Daemon& daemon, const std::string& word) {
  const std::string name = Uppercase(word);
  return ParseUseCase(name) && !ParseByte(name) ? name : LookUpUseCase(daemon, word);
}

std::string LookUpUseCase(Daemon& daemon, const std::string& word) {
  const auto names = QueryUseCases(daemon).rows;
  for (const std::string& name : names) {
    if (Uppercase(name) == Uppercase(word)) return name;
  }
  throw Missing("use case", word, names, std::identity(), "'kvoxctl usecase list' shows all");
}

}  // namespace kvox::client
