#include "client/completion/completion.h"

#include <algorithm>
#include <string_view>

#include "client/calls/call_table.h"
#include "libkvox/calls/arguments.h"
#include "libkvox/model/snapshot.h"

namespace kvox::client {
namespace {

using Names = std::vector<std::string>;

bool IsNoun(const std::string& word) {
  const auto& nouns = AllNouns();
  return std::any_of(nouns.begin(), nouns.end(),
                     [&](const Noun& noun) { return noun.name == word; });
}

/// "-1" is a number, and "-" standard input.
bool IsOption(const std::string& word) {
  return word.starts_with('-') && word.size() > 1 && (word[1] < '0' || word[1] > '9');
}

/// Parses a command line word by word, as far as the cursor.
class Cursor {
 public:
  void Take(const std::string& word) {
    if (waiting_ != nullptr) {
      waiting_ = nullptr;
    } else if (Expects(word)) {
      if (word == "--") options_ended_ = true;
      waiting_ = FindOption(word);
    } else if (verb_ != nullptr) {
      ++position_;
    } else if (noun_.empty() && IsNoun(word) && FindVerb("", word) == nullptr) {
      noun_ = word;
    } else {
      verb_ = FindVerb(noun_, word);
      lost_ = lost_ || verb_ == nullptr;
    }
  }

  Candidates At(const std::string& word) const {
    if (lost_) return {};
    if (waiting_ != nullptr) return ValuesOf(*waiting_, "", word);
    if (Expects(word == "-" ? "--" : word)) return OptionsAt(word);
    if (verb_ == nullptr) return {.words = Verbs(), .typed = word};
    if (verb_->kind == VerbKind::kRawCall && position_ > 0) return {};
    const Argument* const argument = ArgumentHere();
    if (argument == nullptr) return {};
    return {.words = {argument->choices.begin(), argument->choices.end()},
            .kind = argument->kind,
            .typed = word};
  }

 private:
  /// Whether the word is an option here.
  bool Expects(const std::string& word) const {
    return IsOption(word) && !options_ended_ &&
           (verb_ == nullptr || verb_->kind != VerbKind::kRawCall);
  }

  std::vector<const Option*> Options() const {
    std::vector<const Option*> options;
    for (const Option& option : CommonOptions()) options.push_back(&option);
    if (verb_ == nullptr) return options;
    for (const Option& option : verb_->options) options.push_back(&option);
    return options;
  }

  /// One that takes a value; nullptr when there is none of that name.
  const Option* FindOption(const std::string& name) const {
    for (const Option* const option : Options()) {
      if (option->value == nullptr) continue;
      if (name == option->name || (option->letter != nullptr && name == option->letter)) {
        return option;
      }
    }
    return nullptr;
  }

  Candidates OptionsAt(const std::string& word) const {
    const size_t equals = word.find('=');
    if (equals != word.npos) {
      const Option* const option = FindOption(word.substr(0, equals));
      if (option == nullptr) return {};
      return ValuesOf(*option, word.substr(0, equals + 1), word.substr(equals + 1));
    }
    Candidates names = {.words = {"--help"}, .typed = word};
    if (verb_ == nullptr && noun_.empty()) names.words.emplace_back("--version");
    for (const Option* const option : Options()) names.words.emplace_back(option->name);
    return names;
  }

  static Candidates ValuesOf(const Option& option, const std::string& before,
                             const std::string& typed) {
    return {.words = {option.choices.begin(), option.choices.end()},
            .kind = option.kind,
            .before = before,
            .typed = typed};
  }

  Names Verbs() const {
    Names names = VerbNames(noun_);
    if (!noun_.empty()) return names;
    for (const Noun& noun : AllNouns()) names.emplace_back(noun.name);
    return names;
  }

  const Argument* ArgumentHere() const {
    const auto& arguments = verb_->arguments;
    if (position_ < arguments.size()) return &arguments[position_];
    const bool repeats = !arguments.empty() && TakesMany(arguments.back().arity);
    return repeats ? &arguments.back() : nullptr;
  }

  std::string noun_;
  const Verb* verb_ = nullptr;
  const Option* waiting_ = nullptr;  // for its value
  size_t position_ = 0;              // among the verb's arguments
  bool options_ended_ = false;
  bool lost_ = false;  // a word was no verb
};

/// Users wait for it at the keyboard; a daemon takes a millisecond.
constexpr std::chrono::milliseconds kLongestWaitAtKey{250};

Names Processors(Daemon& daemon) {
  Names names;
  for (const Processor& processor : QueryProcessors(daemon).rows) names.push_back(processor.id);
  return names;
}

/// "imic.0"; "2:imic.0" where several cores have one of that name, or where `typed` starts with a
/// number.
Names Taps(Daemon& daemon, const std::string& typed) {
  MissingCores missing;
  const std::vector<TapPoint> taps = QueryTaps(daemon, kAllCores, missing).rows;
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

Names Points(Daemon& daemon, const std::string& typed) {
  Names names = Taps(daemon, typed);
  std::ranges::move(Buffers(QueryBuffers(daemon)), std::back_inserter(names));
  std::ranges::move(Processors(daemon), std::back_inserter(names));
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

/// The names of the daemon's current objects of the kind; none for kinds without names. Throws
/// Failure.
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
    case Kind::kPoint:
      return Points(daemon, typed);
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

/// False for names that would not fit on one line.
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

Candidates CandidatesFor(const Names& words) {
  if (words.empty()) return CandidatesFor({""});
  Cursor cursor;
  for (size_t i = 0; i + 1 < words.size(); ++i) cursor.Take(words[i]);
  return cursor.At(words.back());
}

int Complete(const Names& words) {
  const Candidates wanted = CandidatesFor(words);
  if (wanted.kind == Kind::kFile) {
    PrintOut(std::string(kFilesWanted) + "\n");
    return kDone;
  }
  Print(wanted.words, wanted);
  try {
    Daemon daemon(kLongestWaitAtKey);
    Print(AllNames(wanted.kind, wanted.typed, daemon), wanted);
  } catch (const Failure&) {
    // No daemon, no names.
  }
  return kDone;
}

}  // namespace kvox::client
