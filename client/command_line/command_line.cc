#include "client/command_line/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <optional>
#include <string_view>

#include "client/calls/arguments.h"
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

/// A verb's or the program's parser. Its words are given last first, as CLI11 wants them.
class Parser {
 public:
  explicit Parser(const std::string& name, Common& common) : app_("", name) {
    app_.add_flag("--json", common.json);
    app_.add_flag("--short", common.short_form)->excludes("--json");
    app_.add_option("--color", common.color)->type_name("WHEN");
    app_.add_option("--timeout", common.timeout_s)->type_name("SECONDS");
  }

  CLI::App& app() { return app_; }

  /// Throws UsageError; false when help was asked for.
  bool Parse(const Words& words, const std::string& hint) {
    try {
      app_.parse(Words(words.rbegin(), words.rend()));
    } catch (const CLI::CallForHelp&) {
      return false;
    } catch (const CLI::ExtrasError&) {
      throw UsageError(UnknownOption(app_.remaining().front(), hint));
    } catch (const CLI::ParseError& error) {
      throw UsageError(ValidUtf8(WithoutCount(error.what())) + "; '" + hint +
                       " --help' shows what it takes");
    }
    return true;
  }

  /// What there is instead of the option `word`, which may have a value: "--jsn=1".
  std::string UnknownOption(const std::string& word, const std::string& hint) const {
    Words names;
    for (const CLI::Option* const option : app_.get_options()) {
      if (!option->get_positional()) names.push_back(option->get_name());
    }
    return NotFound("option", word.substr(0, word.find('=')), names,
                    "'" + hint + " --help' shows what it takes");
  }

 private:
  /// "--timeout: 1 required SECONDS missing" without the number.
  static std::string WithoutCount(std::string text) {
    constexpr std::string_view kCount = ": 1 required ";
    const size_t at = text.find(kCount);
    return at == text.npos ? text : text.replace(at, kCount.size(), ": ");
  }

  CLI::App app_;
};

void AddOptions(CLI::App& app, const Verb& verb, Input& in) {
  for (const Option& option : verb.options) {
    Words& words = in.words[option.name];
    if (option.value == nullptr) {
      app.add_flag_function(option.name, [&words](int64_t) { words = {"1"}; });
    } else {
      app.add_option(option.name, words)
          ->type_name(option.value)
          ->expected(1)
          ->allow_extra_args(false)
          ->take_last();
    }
  }
}

/// "" is no value: what an option means when it is absent is not what was asked for.
void RefuseEmpty(const Verb& verb, const Input& in) {
  for (const Option& option : verb.options) {
    const Words& words = in.All(option.name);
    if (option.value == nullptr || std::count(words.begin(), words.end(), "") == 0) continue;
    throw UsageError(std::string(option.name) +
                     ": an empty word is no value; leave the option out");
  }
}

/// Gives each argument its words.
void Distribute(const Words& words, const Verb& verb, Input& in) {
  const std::string hint = "; 'kvoxctl " + verb.Words() + " --help' shows what it takes";
  if (std::count(words.begin(), words.end(), "") > 0) {
    throw UsageError("an empty word names nothing; leave it out, or see what became of a variable" +
                     hint);
  }
  auto word = words.begin();
  for (const Argument& argument : verb.arguments) {
    const bool all = argument.arity == Arity::kAnyNumber;
    const auto end = all || word == words.end() ? words.end() : word + 1;
    in.words[argument.name].assign(word, end);
    if (word == end && argument.arity == Arity::kOnce) {
      throw UsageError(std::string(argument.name) + " is missing" + hint);
    }
    word = end;
  }
  if (word != words.end()) throw UsageError("unexpected '" + ValidUtf8(*word) + "'" + hint);
}

void CheckChoices(const Verb& verb, const Input& in) {
  for (const Argument& argument : verb.arguments) {
    if (argument.kind != Kind::kChoice) continue;
    const Words choices(argument.choices.begin(), argument.choices.end());
    for (const std::string& word : in.All(argument.name)) {
      if (std::find(choices.begin(), choices.end(), word) != choices.end()) continue;
      std::string list;
      for (const std::string& choice : choices) list += (list.empty() ? "" : ", ") + choice;
      throw UsageError(std::string(argument.name) + ": '" + ValidUtf8(word) + "' is none of " +
                       list);
    }
  }
}

Color ReadColor(const std::string& word) {
  constexpr struct {
    std::string_view word;
    Color color;
  } kColors[] = {{"auto", Color::kAuto}, {"always", Color::kAlways}, {"never", Color::kNever}};
  for (const auto& row : kColors) {
    if (row.word == word) return row.color;
  }
  throw UsageError("--color: '" + ValidUtf8(word) + "' is none of auto, always, never");
}

std::chrono::milliseconds ReadTimeout(const std::string& word) {
  const auto seconds = ParseFloat(word);
  if (!seconds || !(*seconds >= 0.001f && *seconds <= 86400)) {
    throw UsageError("--timeout: '" + ValidUtf8(word) + "' is not a number from 0.001 to 86400");
  }
  return std::chrono::milliseconds(std::lround(*seconds * 1000));
}

void Take(const Common& common, CommandLine& line) {
  if (common.json) line.format = Format::kJson;
  if (common.short_form) line.format = Format::kShort;
  line.color = ReadColor(common.color);
  line.wait = common.timeout_s ? ReadTimeout(*common.timeout_s) : kLongestWait;
  if (common.timeout_s) line.in.words["--timeout"] = {*common.timeout_s};
}

const Noun* FindNoun(const std::string& word) {
  const auto& nouns = AllNouns();
  const auto found =
      std::find_if(nouns.begin(), nouns.end(), [&](const Noun& noun) { return noun.name == word; });
  return found == nouns.end() ? nullptr : &*found;
}

Words NamesOfVerbs(std::string_view noun) {
  Words names;
  for (const Verb& verb : AllVerbs()) {
    if (verb.noun == noun) names.emplace_back(verb.name);
  }
  return names;
}

bool AsksForHelp(const std::string& word) {
  return word == "-h" || word == "--help";
}

/// Finds the verb that `words` begin with, and takes its name off them. nullptr with a help text
/// when that is what they ask for.
const Verb* TakeVerb(const Parser& program, Words& words, std::string& help) {
  if (words.empty()) throw UsageError("a verb is missing; 'kvoxctl --help' lists them");
  const std::string first = words.front();
  if (first.starts_with('-')) {
    throw UsageError(program.UnknownOption(first, "kvoxctl"));
  }
  const Noun* const noun = FindNoun(first);
  if (const Verb* const verb = FindVerb("", first)) {
    words.erase(words.begin());
    return verb;
  }
  if (noun == nullptr) {
    Words names = NamesOfVerbs("");
    for (const Noun& other : AllNouns()) names.emplace_back(other.name);
    throw UsageError(NotFound("verb", first, names, "'kvoxctl --help' lists them"));
  }
  const std::string hint = "'kvoxctl " + first + " --help' lists them";
  if (words.size() < 2) throw UsageError(first + ": a verb is missing; " + hint);
  if (AsksForHelp(words[1])) {
    help = HelpOf(*noun);
    return nullptr;
  }
  const Verb* const verb = FindVerb(first, words[1]);
  if (verb == nullptr) {
    throw UsageError(NotFound("verb", words[1], NamesOfVerbs(first), hint));
  }
  words.erase(words.begin(), words.begin() + 2);
  return verb;
}

}  // namespace

CommandLine ReadCommandLine(const Words& words, const std::string& version) {
  CommandLine line;
  Common common;
  Parser program("kvoxctl", common);
  program.app().prefix_command();
  bool show_version = false;
  program.app().add_flag("--version", show_version);
  if (!program.Parse(words, "kvoxctl")) {
    line.help = Help();
    return line;
  }
  if (show_version) {
    line.help = version + "\n";
    return line;
  }
  Words rest = program.app().remaining();
  const Verb* const verb = TakeVerb(program, rest, line.help);
  if (verb == nullptr) return line;
  if (verb->manner == Manner::kRaw) {
    line.in.words[verb->arguments.front().name] = rest;
    if (!rest.empty() && AsksForHelp(rest.front())) {
      line.help = HelpOf(*verb);
      return line;
    }
  } else {
    const std::string name = "kvoxctl " + verb->Words();
    Parser parser(name, common);
    Words given;
    parser.app().add_option("WORDS", given);
    AddOptions(parser.app(), *verb, line.in);
    if (!parser.Parse(rest, name)) {
      line.help = HelpOf(*verb);
      return line;
    }
    RefuseEmpty(*verb, line.in);
    Distribute(given, *verb, line.in);
    CheckChoices(*verb, line.in);
  }
  Take(common, line);
  line.verb = verb;
  return line;
}

}  // namespace kvox::client
