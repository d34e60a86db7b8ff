#include "client/model/lookup.h"

#include <algorithm>
#include <cctype>
#include <cmath>

#include "client/calls/arguments.h"
#include "kvox/common/fixed_text.h"
#include "kvox/common/four_cc.h"
#include "kvox/common/near_matches.h"

namespace kvox::client {
namespace {

constexpr int kLargestByte = 255;
constexpr char kRelayType[] = "arel";

bool AllDigits(const std::string& word) {
  return !word.empty() &&
         std::all_of(word.begin(), word.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::optional<int> ReadByte(const std::string& word) {
  if (!AllDigits(word)) return std::nullopt;
  const auto number = ParseInt(word);
  return number && *number <= kLargestByte ? number : std::nullopt;
}

template <typename T, typename Name>
std::vector<std::string> NamesOf(const std::vector<T>& items, Name name) {
  std::vector<std::string> names;
  for (const T& item : items) names.push_back(name(item));
  return names;
}

bool EqualButForCase(const std::string& a, const std::string& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](unsigned char x, unsigned char y) {
    return std::tolower(x) == std::tolower(y);
  });
}

const char* WordFor(Direction direction) {
  return direction == Direction::kTapOut ? "tap-out buffer" : "inject buffer";
}

bool Matches(const TapWord& wanted, const TapPoint& tap) {
  return tap.code == wanted.code && (!wanted.index || tap.index == *wanted.index);
}

/// Every tap point of one core, or of all. Throws Failure when none of them answers.
std::vector<TapPoint> TapsOf(Daemon& daemon, const std::optional<int>& only) {
  std::vector<int> cores(std::begin(kGraphCores), std::end(kGraphCores));
  if (only) cores = {*only};
  std::vector<TapPoint> taps;
  std::vector<int> silent;
  for (const int core : cores) {
    auto told = AskTaps(daemon, core);
    if (!CoreAnswered(told.lines)) silent.push_back(core);
    taps.insert(taps.end(), told.items.begin(), told.items.end());
  }
  if (taps.empty() && !silent.empty()) throw Failure(kRefused, SilenceOf(silent));
  return taps;
}

std::vector<Buffer> Named(const std::vector<Buffer>& buffers, const std::string& word) {
  const auto id = ReadByte(word);
  std::vector<Buffer> found;
  for (const Buffer& buffer : buffers) {
    if (buffer.name == word || (id && buffer.id == *id)) found.push_back(buffer);
  }
  return found;
}

/// With those whose rows the daemon has cut: they are there all the same.
std::vector<Buffer> BuffersOf(Daemon& daemon, Direction direction) {
  auto told = AskBuffers(daemon, direction);
  told.items.insert(told.items.end(), told.cut.begin(), told.cut.end());
  return std::move(told.items);
}

std::string NameOf(const Buffer& buffer) {
  return buffer.name;
}

struct FoundProcessor {
  ProcessorId id;
  std::string type;
};

FoundProcessor Find(Daemon& daemon, const std::string& word) {
  const auto told = AskProcessors(daemon);
  if (const auto* found = FindProcessor(told.items, word)) {
    return {{CodeOf(word), word}, found->type};
  }
  const auto code = ParseCode(word);
  const std::string name = code ? ToString(static_cast<FourCc>(*code)) : "";
  const std::string shown = ValidUtf8(name.substr(0, name.find_last_not_of(' ') + 1));
  if (const auto* found = FindProcessor(told.items, shown)) return {{*code, name}, found->type};
  throw Failure(kNoObject,
                NotFound("processor", word, NamesOf(told.items, [](const auto& p) { return p.id; }),
                         "'kvoxctl processor list' shows all"));
}

}  // namespace

ProcessorId LookUpProcessor(Daemon& daemon, const std::string& word) {
  return Find(daemon, word).id;
}

ProcessorId LookUpRelay(Daemon& daemon, const std::string& word) {
  const FoundProcessor found = Find(daemon, word);
  if (found.type == kRelayType) return found.id;
  throw UsageError("PROCESSOR: " + found.id.name + " is of type " + found.type +
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
  if (name.size() != 4 || !CanBeProcessor(name.substr(0, name.find_last_not_of(' ') + 1))) {
    throw UsageError(argument + ": '" + ValidUtf8(word) +
                     "' is not four printable characters, the first of them no blank, or their "
                     "number such as 0x70617373");
  }
  return {*code, name};
}

ProcessorId LookUpType(Daemon& daemon, const std::string& word) {
  const auto told = AskTypes(daemon);
  for (const std::string& type : told.items) {
    if (type == word) return {CodeOf(word), word};
  }
  throw Failure(kNoObject, NotFound("processor type", word, told.items,
                                    "'kvoxctl processor types' shows all"));
}

std::optional<TapWord> ReadTapWord(const std::string& word) {
  TapWord tap;
  std::string rest = word;
  const size_t colon = rest.find(':');
  if (colon != rest.npos && AllDigits(rest.substr(0, colon))) {
    tap.core = ReadByte(rest.substr(0, colon));
    if (!tap.core) return std::nullopt;
    rest.erase(0, colon + 1);
  }
  const size_t dot = rest.rfind('.');
  if (dot != rest.npos && AllDigits(rest.substr(dot + 1))) {
    tap.index = ReadByte(rest.substr(dot + 1));
    if (!tap.index) return std::nullopt;
    rest.resize(dot);
  }
  if (rest.empty() || rest.size() > 4) return std::nullopt;
  tap.code = rest;
  return tap;
}

TapPoint LookUpTap(Daemon& daemon, const std::string& word) {
  const auto wanted = ReadTapWord(word);
  if (!wanted) {
    throw UsageError("TAP: '" + ValidUtf8(word) +
                     "' is not a tap point's name such as imic.0 or 2:imic.0");
  }
  std::vector<TapPoint> taps = TapsOf(daemon, wanted->core);
  std::vector<TapPoint> found;
  std::copy_if(taps.begin(), taps.end(), std::back_inserter(found),
               [&](const TapPoint& tap) { return Matches(*wanted, tap); });
  if (found.size() == 1) return found.front();
  if (found.empty()) {
    if (wanted->core) taps = TapsOf(daemon, std::nullopt);  // it may be on another core
    throw Failure(kNoObject, NotFound("tap point", word,
                                      NamesOf(taps,
                                              [&](const TapPoint& tap) {
                                                return wanted->core ? tap.FullName() : tap.Name();
                                              }),
                                      "'kvoxctl tap list' shows all"));
  }
  std::string candidates;
  for (const TapPoint& tap : found) candidates += " " + tap.FullName();
  throw Failure(kWrongUsage, "TAP: '" + word + "' may be any of" + candidates + "; name one");
}

Buffer LookUpBuffer(Daemon& daemon, Direction direction, const std::string& word) {
  const std::vector<Buffer> buffers = BuffersOf(daemon, direction);
  const auto found = Named(buffers, word);
  if (!found.empty()) return found.front();
  throw Failure(kNoObject, NotFound(WordFor(direction), word, NamesOf(buffers, NameOf),
                                    "'kvoxctl buffer list' shows all"));
}

Buffer LookUpBuffer(Daemon& daemon, const std::string& word) {
  auto buffers = BuffersOf(daemon, Direction::kTapOut);
  const auto injects = BuffersOf(daemon, Direction::kInject);
  buffers.insert(buffers.end(), injects.begin(), injects.end());
  const auto found = Named(buffers, word);
  if (found.size() == 1) return found.front();
  if (found.empty()) {
    throw Failure(kNoObject, NotFound("buffer", word, NamesOf(buffers, NameOf),
                                      "'kvoxctl buffer list' shows all"));
  }
  throw Failure(kWrongUsage, "BUFFER: '" + word + "' may be " + found[0].name + " or " +
                                 found[1].name + "; name one");
}

int32_t LookUpBufferOrNone(Daemon& daemon, Direction direction, const std::string& word) {
  if (word.empty() || word == "none" || word == "-" || word == "-1") return -1;
  return LookUpBuffer(daemon, direction, word).id;
}

std::string LookUpUseCase(Daemon& daemon, const std::string& word) {
  const auto told = AskUseCases(daemon);
  for (const std::string& name : told.items) {
    if (EqualButForCase(name, word)) return name;
  }
  throw Failure(kNoObject,
                NotFound("use case", word, told.items, "'kvoxctl usecase list' shows all"));
}

int32_t Number(const std::string& argument, const std::string& word, int32_t least, int32_t most) {
  const auto number = ParseInt(word);
  if (!number || *number < least || *number > most) {
    throw UsageError(argument + ": '" + ValidUtf8(word) + "' is not a number from " +
                     std::to_string(least) + " to " + std::to_string(most));
  }
  return *number;
}

float Gain(const std::string& argument, const std::string& word) {
  const auto gain = ParseFloat(word);
  if (!gain || !std::isfinite(*gain)) {
    throw UsageError(argument + ": '" + ValidUtf8(word) + "' is not a finite number");
  }
  return *gain;
}

}  // namespace kvox::client
