#include "client/command_line/help.h"

#include <vector>

#include "platform/platform.h"

namespace kvox::client {
namespace {

std::vector<HelpRow> RowsOf(const std::vector<Option>& options) {
  std::vector<HelpRow> rows;
  for (const Option& option : options) rows.push_back({Shown(option), option.help});
  return rows;
}

std::string CommonSection() {
  std::vector<HelpRow> rows = RowsOf(CommonOptions());
  rows.push_back({"-h, --help", "Show this"});
  return HelpSection("Common options", rows);
}

std::vector<HelpRow> RowsOfVerbs(std::string_view noun) {
  std::vector<HelpRow> rows;
  for (const Verb& verb : AllVerbs()) {
    if (verb.noun() == noun) rows.push_back({verb.words, verb.summary});
  }
  return rows;
}

std::string ExitSection(const std::vector<ExitRow>& exits) {
  std::vector<HelpRow> rows;
  for (const ExitRow& row : exits) rows.push_back({std::to_string(row.status), row.meaning});
  return HelpSection("Exit status", rows);
}

}  // namespace

std::string Shown(const Argument& argument) {
  const std::string name = argument.name + std::string(TakesMany(argument.arity) ? "..." : "");
  return MayBeAbsent(argument.arity) ? "[" + name + "]" : name;
}

std::string Shown(const Option& option) {
  return (option.letter == nullptr ? "" : std::string(option.letter) + ", ") + option.name +
         (option.value == nullptr ? "" : std::string(" ") + option.value);
}

std::vector<HelpRow> Variables() {
  std::vector<HelpRow> rows = ClientVariables();
  rows.push_back({"NO_COLOR", "When set to anything, color only with --color always"});
  rows.push_back({"TERM", "Terminal type, for top"});
  return rows;
}

std::string UsageOf(const Verb& verb) {
  std::string text = verb.words;
  for (const Argument& argument : verb.arguments) text += " " + Shown(argument);
  for (const Option& option : verb.options) text += " [" + Shown(option) + "]";
  return text;
}

std::string HelpOf(const Verb& verb) {
  std::vector<HelpRow> arguments;
  for (const Argument& argument : verb.arguments) {
    arguments.push_back({argument.name, argument.help});
  }
  return std::string(verb.summary) + "\nUsage: kvoxctl " + UsageOf(verb) + "\n" +
         HelpSection("Arguments", arguments) + HelpSection("Options", RowsOf(verb.options)) +
         (verb.kind == VerbKind::kRawCall ? "" : CommonSection()) +
         (verb.notes == nullptr ? "" : std::string("\n") + verb.notes()) +
         ExitSection(ExitsOf(verb)) + "\nExample: kvoxctl " + verb.example + "\n";
}

std::string HelpOf(const Noun& noun) {
  return std::string(noun.summary) + "\nUsage: kvoxctl " + noun.name + " VERB ...\n" +
         HelpSection("Verbs", RowsOfVerbs(noun.name)) + "\n'kvoxctl " + noun.name +
         " VERB --help' says more.\n";
}

std::string Help() {
  std::string text =
      "The command-line client of kvoxd.\nUsage: kvoxctl [OPTIONS] NOUN VERB ...\n"
      "       kvoxctl [OPTIONS] VERB ...\n";
  for (const Noun& noun : AllNouns()) text += HelpSection(noun.summary, RowsOfVerbs(noun.name));
  text += HelpSection("Other verbs", RowsOfVerbs(""));
  return text + CommonSection() + HelpSection("Environment", Variables()) +
         ExitSection(AllExits()) +
         "\nEvery verb has a --help of its own, with an example; 'kvoxctl help VERB' is the same.\n"
         "'kvoxctl -' reads such lines from standard input, and ends with the first that fails.\n"
         "Example: kvoxctl --json processor list\n";
}

}  // namespace kvox::client
