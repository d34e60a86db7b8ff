#include "client/completion/candidates.h"

#include <algorithm>

namespace kvox::client {
namespace {

using Words = std::vector<std::string>;

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
      if (option->name == name && option->value != nullptr) return option;
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

  Words Verbs() const {
    Words names = VerbNames(noun_);
    if (!noun_.empty()) return names;
    for (const Noun& noun : AllNouns()) names.emplace_back(noun.name);
    return names;
  }

  const Argument* ArgumentHere() const {
    const auto& arguments = verb_->arguments;
    if (position_ < arguments.size()) return &arguments[position_];
    const bool repeats = !arguments.empty() && arguments.back().arity == Arity::kAnyNumber;
    return repeats ? &arguments.back() : nullptr;
  }

  std::string noun_;
  const Verb* verb_ = nullptr;
  const Option* waiting_ = nullptr;  // for its value
  size_t position_ = 0;              // among the verb's arguments
  bool options_ended_ = false;
  bool lost_ = false;  // a word was no verb
};

}  // namespace

Candidates CandidatesFor(const Words& words) {
  if (words.empty()) return CandidatesFor({""});
  Cursor cursor;
  for (size_t i = 0; i + 1 < words.size(); ++i) cursor.Take(words[i]);
  return cursor.At(words.back());
}

}  // namespace kvox::client
