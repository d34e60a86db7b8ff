// kvox_manual TEMPLATE VERSION: prints a manual page for scdoc(1) to render. In the template a word
// such as @OPTIONS@ is replaced by the rows of the program's own --help.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "client/command_line/help.h"
#include "daemon/usage.h"
#include "interface/service_name.h"
#include "platform/linux/runtime_directory.h"
#include "platform/platform.h"
#include "sim/command_line.h"
#include "sim/faults/fault.h"

namespace kvox::manual {
namespace {

using Rows = std::vector<HelpRow>;
using Texts = std::map<std::string, std::string, std::less<>>;

/// The text as scdoc prints it unchanged.
std::string Escaped(std::string_view text) {
  // Elsewhere these are text; at the start of a line they make lists, tables and comments.
  constexpr std::string_view kAtStart = "-.;#[|]";
  std::string escaped;
  for (const char c : text) {
    const bool at_start = escaped.empty() || escaped.back() == '\n';
    if (c == '\\' || c == '*' || c == '_' || c == '`' || c == '~' ||
        (at_start && kAtStart.find(c) != kAtStart.npos)) {
      escaped += '\\';
    }
    escaped += c;
  }
  return escaped;
}

/// A usage such as "tap gain TAP [--ramp MS]": placeholders, in capitals, are underlined, what is
/// typed is bold.
std::string Styled(std::string_view usage) {
  const auto is_word = [](unsigned char c) { return std::isalnum(c) != 0 || c == '_' || c == '-'; };
  const auto is_typed = [](unsigned char c) { return std::islower(c) != 0 || c == '-'; };
  std::string styled;
  for (auto at = usage.begin(); at != usage.end();) {
    const auto end = std::find_if_not(at, usage.end(), is_word);
    const std::string_view word(at, end);
    if (word.empty()) {
      styled += Escaped({at++, 1});
      continue;
    }
    const bool placeholder = std::none_of(at, end, is_typed) && std::isdigit(*at) == 0;
    const char style = placeholder ? '_' : '*';
    styled += style + Escaped(word) + style;
    at = end;
  }
  return styled;
}

/// Each row as a term and its description, `depth` tabs deep.
std::string Format(const Rows& rows, size_t depth = 0) {
  const std::string tabs(depth, '\t');
  std::string text;
  for (const HelpRow& row : rows) {
    text += tabs + Styled(row.what) + "\n";
    text += tabs + "\t" + Escaped(row.help) + (depth == 0 ? "\n\n" : "\n");
  }
  return text;
}

/// Notes of a verb: lines that begin with a blank keep their shape.
std::string FormatNotes(std::string_view notes) {
  std::string text;
  bool literal = false;
  while (!notes.empty()) {
    const std::string_view line = notes.substr(0, notes.find('\n'));
    notes.remove_prefix(std::min(line.size() + 1, notes.size()));
    if (line.starts_with(' ') != literal) text += literal ? "\t```\n\n" : "\n\t```\n";
    literal = line.starts_with(' ');
    text += "\t" + Escaped(line) + "\n";
  }
  return text + (literal ? "\t```\n" : "");
}

Rows RowsOf(const std::vector<client::Option>& options) {
  Rows rows;
  for (const client::Option& option : options) rows.push_back({Shown(option), option.help});
  return rows;
}

std::string FormatVerb(const client::Verb& verb) {
  Rows rows;
  for (const auto& argument : verb.arguments) rows.push_back({argument.name, argument.help});
  std::string text = Styled(UsageOf(verb)) + "\n\t" + Escaped(verb.summary) + "\n\n";
  text += Format(rows, 1) + Format(RowsOf(verb.options), 1);
  if (verb.notes != nullptr) text += "\n" + FormatNotes(verb.notes());
  return text + "\n\tExample: kvoxctl " + Escaped(verb.example) + "\n\n";
}

Texts KvoxctlTexts() {
  Rows options = RowsOf(client::CommonOptions());
  options.push_back({"-h, --help", "Show what there is, or what a verb takes, with an example"});
  options.push_back({"--version", "Show the version"});
  Rows exits;
  for (const client::ExitRow& row : client::AllExits()) {
    exits.push_back({std::to_string(row.status), row.meaning});
  }
  auto nouns = client::AllNouns();
  nouns.push_back({"", "Verbs without a noun"});
  std::string verbs;
  for (const client::Noun& noun : nouns) {
    verbs += std::string("## ") + noun.summary + "\n\n";
    for (const client::Verb& verb : client::AllVerbs()) {
      if (verb.noun() == noun.name) verbs += FormatVerb(verb);
    }
  }
  return {
      {"OPTIONS", Format(options)},
      {"VERBS", verbs},
      {"EXITS", Format(exits)},
      {"VARIABLES", Format(client::Variables())},
      {"ROOTSOCKET", Escaped(binder::SocketPath("/run/kvox", KvoxDescriptor()))},
      {"USERSOCKET", Escaped(binder::SocketPath("$XDG_RUNTIME_DIR/kvox", KvoxDescriptor()))},
  };
}

Texts KvosimTexts() {
  std::string commands;
  for (const sim::CommandHelp& help : sim::Commands()) {
    commands += Format({help.command}) + Format(help.options, 1) + "\n";
  }
  Rows faults;
  for (const sim::FaultKindRow& row : sim::FaultKinds()) faults.push_back({row.name, row.help});
  return {
      {"OPTIONS", Format(sim::Options())},     {"COMMANDS", commands},
      {"CTL", Format(sim::CtlCommands())},     {"FAULTS", Format(faults)},
      {"SIGNALS", Format(sim::Signals())},     {"EXITS", Format(sim::Exits())},
      {"VARIABLES", Format(sim::Variables())},
  };
}

Texts KvoxdTexts() {
  return {
      {"SUMMARY", Escaped(UsageSummary())},
      {"OPTIONS", Format(UsageOptions())},
      {"VARIABLES", Format(DaemonVariables())},
      {"SIGNALS", Format(UsageSignals())},
      {"EXITS", Format(UsageExits())},
      {"SOCKET", Escaped(binder::SocketPath("/run/kvox", KvoxDescriptor()))},
      {"LOCK", Escaped(binder::LockPath("/run/kvox", KvoxDescriptor()))},
  };
}

/// Replaces every @NAME@ of the page.
std::string Fill(std::string page, const Texts& texts) {
  for (size_t at = 0; (at = page.find('@', at)) != page.npos;) {
    const size_t end = page.find('@', at + 1);
    const std::string name = page.substr(at + 1, end - at - 1);
    const auto text = texts.find(name);
    if (text == texts.end()) throw std::runtime_error("there is no text for @" + name + "@");
    page.replace(at, end + 1 - at, text->second);
    at += text->second.size();
  }
  return page;
}

std::string PageOf(const std::filesystem::path& path, const std::string& version) {
  static const std::map<std::string, Texts (*)()> kTexts = {
      {"kvoxctl", KvoxctlTexts},
      {"kvosim", KvosimTexts},
      {"kvoxd", KvoxdTexts},
      {"kvoxweb", [] { return Texts(); }},
  };
  const std::string file = path.filename().string();
  Texts texts = kTexts.at(file.substr(0, file.find('.')))();
  texts["VERSION"] = version;
  std::ifstream stream(path);
  if (!stream) throw std::runtime_error(path.string() + " cannot be read");
  return Fill({std::istreambuf_iterator(stream), {}}, texts);
}

}  // namespace
}  // namespace kvox::manual

int main(int argc, char** argv) {
  if (argc != 3) {
    fputs("Usage: kvox_manual TEMPLATE VERSION\n", stderr);
    return 2;
  }
  try {
    std::cout << kvox::manual::PageOf(argv[1], argv[2]) << std::flush;
    return std::cout ? 0 : 1;
  } catch (const std::exception& error) {
    fprintf(stderr, "kvox_manual: %s\n", error.what());
    return 1;
  }
}
