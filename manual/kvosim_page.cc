#include <CLI/CLI.hpp>

#include "manual/pages.h"
#include "sim/command_line.h"
#include "sim/fault.h"

namespace kvox::manual {
namespace {

/// "-h, --help", "--seconds N", "SOURCE"
std::string UsageOf(const CLI::Option& option) {
  if (option.get_positional()) return option.get_name(true);
  std::string usage;
  for (const char c : option.get_name(false, true)) usage += c == ',' ? ", " : std::string(1, c);
  const bool flag = option.get_items_expected_max() == 0;
  return flag ? usage : usage + " " + option.get_type_name();
}

/// Of a command without its --help, which is the same everywhere.
std::vector<HelpRow> RowsOf(const CLI::App& app) {
  std::vector<HelpRow> rows;
  for (const CLI::Option* const option : app.get_options()) {
    if (app.get_parent() != nullptr && option == app.get_help_ptr()) continue;
    rows.push_back({UsageOf(*option), option->get_description()});
  }
  return rows;
}

/// "kvosim compare SOURCE RECORDED [--skip-silence]"; the options of `kvosim` itself are too many.
std::string SynopsisOf(const CLI::App& command) {
  std::string words;
  std::string options;
  for (const CLI::Option* const option : command.get_options()) {
    const std::string usage = UsageOf(*option);
    if (option->get_positional()) {
      words += " " + usage + (option->get_expected_max() > 1 ? "..." : "");
    } else if (option != command.get_help_ptr()) {
      options += " [" + usage + "]";
    }
  }
  return "kvosim " + command.get_name() + words + options;
}

void DescribeFaults(Page& page) {
  page.Section("Faults");
  page.Paragraph(
      "A fault is set with kvosim ctl fault, or stands in the scenario as a table [[fault]]. These "
      "keys say when it strikes: at, after, probability, seed, count and for. Faults of packets "
      "take tap as well, and those of replies opcode. Kinds, and what else they take:");
  for (const sim::FaultKindRow& row : sim::FaultKinds()) page.Term(row.name, row.help);
}

}  // namespace

std::string KvosimPage(const Edition& edition) {
  CLI::App app("", "kvosim");
  sim::CommandLine line;
  sim::Describe(app, line);

  Page page("kvosim", 1, "simulates an audio co-processor", edition);
  page.Section("Synopsis");
  std::vector<std::string> usages = {"kvosim [OPTION...]"};
  const auto commands = app.get_subcommands([](const CLI::App*) { return true; });
  for (const CLI::App* const command : commands) usages.push_back(SynopsisOf(*command));
  page.Synopsis(usages);

  page.Section("Description");
  page.Paragraph(
      "It stands for the co-processor on a machine that has none: it creates the devices that "
      "kvoxd(8) looks for, answers commands, streams audio from the tap points that are enabled "
      "and takes back what is injected. Each packet that returns is compared with the one that "
      "was sent.");
  page.Paragraph(
      "What it simulates is a scenario in TOML; --write-default shows the one that is built in. "
      "The "
      "keys of scenarios and faults, and the counters, are explained in simulator.md, which is "
      "part "
      "of the documentation of kvox.");

  page.Section("Options");
  page.Terms(RowsOf(app));

  page.Section("Commands");
  for (const CLI::App* const command : commands) {
    page.Term(command->get_name(), command->get_description());
    page.MoreTerms(RowsOf(*command));
  }
  page.Paragraph("kvosim ctl takes these commands:");
  page.Terms(sim::CtlCommands());

  DescribeFaults(page);

  page.Section("Signals");
  page.Terms(sim::Signals());

  page.Section("Exit status");
  page.Terms(sim::Exits());

  page.Section("Environment");
  page.Terms(sim::Variables());

  page.Section("Files");
  page.Terms({
      {"$KVOX_DEV_DIR/kvo", "There while the co-processor is"},
      {"$KVOX_DEV_DIR/xdv-kvox_control", "Link to the pseudo-terminal that is the control device"},
      {"$KVOX_DEV_DIR/xdv-kvox_tapoutN", "FIFOs with audio to the daemon"},
      {"$KVOX_DEV_DIR/xdv-kvox_injectN", "FIFOs with audio from the daemon"},
      {"$KVOX_DEV_DIR/.kvosim.ctl", "Socket for kvosim ctl"},
      {"$KVOX_DEV_DIR/.kvosim.lock", "Held by the one simulator that uses the directory"},
  });

  page.Section("Examples");
  page.Paragraph("A phone in a directory of its own, for ten seconds:");
  page.Example({
      "export KVOX_DEV_DIR=$HOME/phone && mkdir -p $KVOX_DEV_DIR",
      "kvosim --print --seconds 10",
  });
  page.Paragraph("Its co-processor restarts, and the nodes come back in any order:");
  page.Example({"kvosim ctl fault restart gap=2 order=shuffle"});

  page.SeeAlso({"kvoxctl(1)", "kvoxd(8)"});
  return page.text();
}

}  // namespace kvox::manual
