#include "client/help.h"

#include <algorithm>
#include <vector>

namespace kvox::client {
namespace {

struct Line {
  std::string what;
  std::string help;
};

/// Two columns under a heading; nothing without lines.
std::string Section(const char* heading, const std::vector<Line>& lines) {
  if (lines.empty()) return "";
  size_t width = 0;
  for (const Line& line : lines) width = std::max(width, line.what.size());
  std::string text = std::string("\n") + heading + ":\n";
  for (const Line& line : lines) {
    text += "  " + line.what + std::string(width - line.what.size() + 2, ' ') + line.help + "\n";
  }
  return text;
}

std::string Shown(const Argument& argument) {
  std::string name = argument.name;
  switch (argument.arity) {
    case Arity::kOptional:
      return "[" + name + "]";
    case Arity::kAnyNumber:
      return "[" + name + "...]";
    case Arity::kOnce:
      break;
  }
  return name;
}

std::string Shown(const Option& option) {
  return option.name + (option.value == nullptr ? "" : std::string(" ") + option.value);
}

std::vector<Line> LinesOf(const std::vector<Option>& options) {
  std::vector<Line> lines;
  for (const Option& option : options) lines.push_back({Shown(option), option.help});
  return lines;
}

std::string CommonSection() {
  std::vector<Line> lines = LinesOf(CommonOptions());
  lines.push_back({"-h, --help", "Show this"});
  return Section("Options of every verb", lines);
}

std::vector<Line> VerbLines(std::string_view noun) {
  std::vector<Line> lines;
  for (const Verb& verb : AllVerbs()) {
    if (verb.noun == noun) lines.push_back({verb.Words(), verb.summary});
  }
  return lines;
}

}  // namespace

std::string UsageOf(const Verb& verb) {
  std::string text = verb.Words();
  for (const Argument& argument : verb.arguments) text += " " + Shown(argument);
  for (const Option& option : verb.options) text += " [" + Shown(option) + "]";
  return text;
}

std::string HelpOf(const Verb& verb) {
  std::vector<Line> arguments;
  for (const Argument& argument : verb.arguments) {
    arguments.push_back({argument.name, argument.help});
  }
  std::vector<Line> exits;
  for (const ExitRow& row : ExitsOf(verb)) {
    exits.push_back({std::to_string(row.status), row.meaning});
  }
  return std::string(verb.summary) + "\nUsage: kvoxctl " + UsageOf(verb) + "\n" +
         Section("Arguments", arguments) + Section("Options", LinesOf(verb.options)) +
         (verb.raw ? "" : CommonSection()) +
         (verb.notes == nullptr ? "" : std::string("\n") + verb.notes()) +
         Section("Exit status", exits) + "\nExample: kvoxctl " + verb.example + "\n";
}

std::string HelpOf(const Noun& noun) {
  return std::string(noun.summary) + "\nUsage: kvoxctl " + noun.name + " VERB ...\n" +
         Section("Verbs", VerbLines(noun.name)) + "\n'kvoxctl " + noun.name +
         " VERB --help' tells more.\n";
}

std::string Help() {
  std::string text =
      "The command-line client of kvoxd.\nUsage: kvoxctl [OPTIONS] NOUN VERB ...\n"
      "       kvoxctl [OPTIONS] VERB ...\n";
  for (const Noun& noun : AllNouns()) text += Section(noun.summary, VerbLines(noun.name));
  text += Section("And", VerbLines(""));
  return text + CommonSection() +
         "\nEvery verb has a --help of its own, with an example.\n"
         "Exit status: 0 done, 1 the daemon refused, 2 wrong usage, 3 no daemon, 4 no such "
         "object,\n"
         "5 permission denied, 6 timed out, 7 done but blocks were missed, 74 kvoxctl failed.\n"
         "Example: kvoxctl --json processor list\n";
}

}  // namespace kvox::client
