#include "client/command_line/command_line.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <optional>
#include <string_view>

#include "client/command_line/help.h"
#include "kvox/common/fixed_text.h"
#include "kvox/common/near_matches.h"

namespace kvox::client {
namespace {

using Words = std::vector<std::string>;

/// The values of CommonOptions() as they were given.
struct Common {
  bool json = false;
  bool short_form = false;
  std::string color = "auto";
  std::optional<std::string> timeout_s;
};

bool Contains(const Words& words, std::string_view word) {
  return std::find(words.begin(), words.end(), word) != words.end();
}

/// The parser of a verb or of the program.
class Parser {
 public:
  explicit Parser(const std::string& name, Common& common) : app_("", name), name_(name) {
    app_.add_flag("--json", common.json);
    app_.add_flag("--short", common.short_form)->excludes("--json");
    app_.add_option("--color", common.color)->type_name("WHEN");
    app_.add_option("--timeout", common.timeout_s)->type_name("SECONDS");
  }

  CLI::App& app() { return app_; }

  /// Throws UsageError; false when help is wanted.
  bool Parse(const Words& words) {
    try {
      app_.parse(Words(words.rbegin(), words.rend()));  // CLI11 takes them last first
    } catch (const CLI::CallForHelp&) {
      return false;
    } catch (const CLI::ExtrasError&) {
      throw UsageError(UnknownOption(app_.remaining().front()));
    } catch (const CLI::ParseError& error) {
      throw UsageError(ValidUtf8(WithoutCount(error.what())) + "; " + Hint());
    }
    return true;
  }

  /// Suggests options for `word`, which may have a value: "--jsn=1".
  std::string UnknownOption(const std::string& word) const {
    Words names;
    for (const CLI::Option* const option : app_.get_options()) {
      if (!option->get_positional()) names.push_back(option->get_name());
    }
    return NotFound("option", word.substr(0, word.find('=')), names, Hint());
  }

  std::string Hint() const { return "'" + name_ + " --help' shows what it takes"; }

 private:
  /// "--timeout: 1 required SECONDS missing" without the number.
  static std::string WithoutCount(std::string text) {
    constexpr std::string_view kCount = ": 1 required ";
    const size_t at = text.find(kCount);
    return at == text.npos ? text : text.replace(at, kCount.size(), ": ");
  }

  CLI::App app_;
  const std::string name_;
};

void AddOptions(CLI::App& app, const Verb& verb, Input& in) {
  for (const Option& option : verb.options) {
    Words& words = in.words[option.name];
    if (option.value == nullptr) {
      app.add_flag_function(option.name, [&words](int64_t) { words = {"1"}; });
    } else {
      const std::string letter = option.letter == nullptr ? "" : option.letter + std::string(",");
      app.add_option(letter + option.name, words)
          ->type_name(option.value)
          ->expected(1)
          ->allow_extra_args(false)
          ->take_last();
    }
  }
}

void CheckChoices(const char* name, const std::vector<const char*>& choices, const Words& words) {
  for (const std::string& word : words) {
    if (std::find(choices.begin(), choices.end(), word) != choices.end()) continue;
    throw UsageError(
        fmt::format("{}: '{}' is none of {}", name, ValidUtf8(word), fmt::join(choices, ", ")));
  }
}

/// Assigns the words to the arguments.
void AssignArguments(const Words& words, const Verb& verb, const std::string& hint, Input& in) {
  if (Contains(words, "")) {
    throw UsageError(
        "an empty word names nothing; leave it out, or see what became of a variable; " + hint);
  }
  auto word = words.begin();
  for (const Argument& argument : verb.arguments) {
    const bool all = TakesMany(argument.arity);
    const auto end = all || word == words.end() ? words.end() : word + 1;
    in.words[argument.name].assign(word, end);
    if (word == end && !MayBeAbsent(argument.arity)) {
      throw UsageError(std::string(argument.name) + " is missing; " + hint);
    }
    word = end;
  }
  if (word != words.end()) throw UsageError("unexpected '" + ValidUtf8(*word) + "'; " + hint);
  for (const Argument& argument : verb.arguments) {
    if (argument.kind != Kind::kChoice) continue;
    CheckChoices(argument.name, argument.choices, in.All(argument.name));
  }
}

/// False when help is wanted.
bool ParseVerb(const Verb& verb, const Words& words, Common& common, Input& in) {
  Parser parser(std::string("kvoxctl ") + verb.words, common);
  Words given;
  parser.app().add_option("WORDS", given);
  AddOptions(parser.app(), verb, in);
  if (!parser.Parse(words)) return false;
  for (const Option& option : verb.options) {
    // "" is not the same as leaving the option out.
    if (option.value == nullptr || !Contains(in.All(option.name), "")) continue;
    throw UsageError(std::string(option.name) +
                     ": an empty word is no value; leave the option out");
  }
  AssignArguments(given, verb, parser.Hint(), in);
  return true;
}

void ApplyCommon(const Common& common, CommandLine& line) {
  static const std::vector<const char*> kColors = {"auto", "always", "never"};  // in Color's order
  if (common.json) line.format = Format::kJson;
  if (common.short_form) line.format = Format::kShort;
  CheckChoices("--color", kColors, {common.color});
  const auto color = std::find(kColors.begin(), kColors.end(), common.color);
  line.color = static_cast<Color>(color - kColors.begin());
  if (common.timeout_s) line.in.words["--timeout"] = {*common.timeout_s};
  line.wait = line.in.Seconds("--timeout", 0.001f, 86400, kLongestWait);
}

bool AsksForHelp(const std::string& word) {
  return word == "-h" || word == "--help";
}

/// Finds the verb that `words` begin with, and removes its name from them. nullptr with a help text
/// when that is what they ask for.
const Verb* TakeVerb(const Parser& program, Words& words, std::string& help) {
  if (words.empty()) throw UsageError("a verb is missing; 'kvoxctl --help' lists them");
  const std::string first = words.front();
  if (first.starts_with('-')) throw UsageError(program.UnknownOption(first));
  if (const Verb* const verb = FindVerb("", first)) {
    words.erase(words.begin());
    return verb;
  }
  const auto& nouns = AllNouns();
  const auto noun =
      std::find_if(nouns.begin(), nouns.end(), [&](const Noun& it) { return it.name == first; });
  if (noun == nouns.end()) {
    Words names = VerbNames("");
    for (const Noun& other : nouns) names.emplace_back(other.name);
    throw UsageError(NotFound("verb", first, names, "'kvoxctl --help' lists them"));
  }
  const std::string hint = "'kvoxctl " + first + " --help' lists them";
  if (words.size() < 2) throw UsageError(first + ": a verb is missing; " + hint);
  if (AsksForHelp(words[1])) {
    help = HelpOf(*noun);
    return nullptr;
  }
  const Verb* const verb = FindVerb(first, words[1]);
  if (verb == nullptr) throw UsageError(NotFound("verb", words[1], VerbNames(first), hint));
  words.erase(words.begin(), words.begin() + 2);
  return verb;
}

}  // namespace

CommandLine ReadCommandLine(const Words& words, const std::string& version) {
  CommandLine line;
  const auto help = [&](std::string text) {
    line.help = std::move(text);
    return line;
  };
  Common common;
  Parser program("kvoxctl", common);
  program.app().prefix_command();
  bool show_version = false;
  program.app().add_flag("-V,--version", show_version);
  if (!program.Parse(words)) return help(Help());
  if (show_version) return help(version + "\n");
  Words rest = program.app().remaining();
  if (!rest.empty() && rest.front() == "help") {
    rest.erase(rest.begin());
    if (rest.empty()) return help(Help());
    rest.push_back("--help");
  }
  const Verb* const verb = TakeVerb(program, rest, line.help);
  if (verb == nullptr) return line;
  if (verb->kind == VerbKind::kRawCall) {
    line.in.words[verb->arguments.front().name] = rest;
    if (!rest.empty() && AsksForHelp(rest.front())) return help(HelpOf(*verb));
  } else if (!ParseVerb(*verb, rest, common, line.in)) {
    return help(HelpOf(*verb));
  }
  ApplyCommon(common, line);
  line.verb = verb;
  return line;
}

}  // namespace kvox::client
