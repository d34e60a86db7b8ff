#include "client/command_line/help.h"
#include "interface/service_name.h"
#include "manual/pages.h"
#include "platform/linux/runtime_directory.h"

namespace kvox::manual {
namespace {

using client::Verb;

std::vector<HelpRow> RowsOf(const std::vector<client::Option>& options) {
  std::vector<HelpRow> rows;
  for (const client::Option& option : options) rows.push_back({Shown(option), option.help});
  return rows;
}

std::vector<HelpRow> RowsOf(const std::vector<client::ExitRow>& exits) {
  std::vector<HelpRow> rows;
  for (const client::ExitRow& row : exits) {
    rows.push_back({std::to_string(row.status), row.meaning});
  }
  return rows;
}

void Describe(Page& page, const Verb& verb) {
  page.Term(UsageOf(verb), verb.summary);
  std::vector<HelpRow> rows;
  for (const client::Argument& argument : verb.arguments) {
    rows.push_back({argument.name, argument.help});
  }
  page.MoreTerms(rows);
  page.MoreTerms(RowsOf(verb.options));
  if (verb.notes != nullptr) page.MoreLines(verb.notes());
  page.More(std::string("Example: kvoxctl ") + verb.example);
}

void DescribeVerbs(Page& page, const client::Noun& noun) {
  page.Subsection(noun.summary);
  for (const Verb& verb : client::AllVerbs()) {
    if (verb.noun() == noun.name) Describe(page, verb);
  }
}

void DescribeNames(Page& page) {
  page.Section("Names");
  page.Paragraph("What the placeholders stand for:");
  page.Terms({
      {"PROCESSOR", "Four characters such as art0, or their number"},
      {"TAP",
       "A tap point's code and index, such as imic.0; with its core, 2:imic.0, where several cores "
       "have one of that name; imic alone where it has one index"},
      {"TAPOUT, INJECT, BUFFER", "A buffer such as tapout0 or inject0, or its number"},
      {"USECASE", "As usecase list shows it, in capitals or not"},
      {"PARAMETER", "As param list shows it, in capitals or not, or its number"},
  });
}

void DescribeOutput(Page& page) {
  page.Section("Output");
  page.Paragraph(
      "Lines for people, as the daemon has said them. With --json, one document on one line, whose "
      "field schema is 1; with --short, a line a record with fields parted by tabs and - for "
      "nothing. Fields are only ever added, at the end. Messages go to standard error.");
}

void DescribeExamples(Page& page) {
  page.Section("Examples");
  page.Paragraph("Audio from a tap point through a processor and back:");
  page.Example({
      "kvoxctl processor new pass",
      "kvoxctl connect pass tapout0 inject0",
      "kvoxctl processor enable pass",
      "kvoxctl tap connect genp.0 tapout0 inject0",
      "kvoxctl io start tapout0",
      "kvoxctl tap enable genp.0",
  });
  page.Paragraph("Names of the processors that are enabled:");
  page.Example({"kvoxctl processor list --short | awk '$5 { print $1 }'"});
  page.Paragraph("Keep what a daemon is set to do, and bring it about again:");
  page.Example({"kvoxctl export > phone.toml", "kvoxctl apply phone.toml"});
  page.Paragraph("Complete words in this shell, and in those to come:");
  page.Example({
      "source <(kvoxctl completion bash)",
      "echo 'source <(kvoxctl completion bash)' >> ~/.bashrc",
  });
}

}  // namespace

std::string KvoxctlPage(const Edition& edition) {
  Page page("kvoxctl", 1, "command-line client of kvoxd", edition);
  page.Section("Synopsis");
  page.Synopsis({"kvoxctl [OPTION...] NOUN VERB [ARGUMENT...]",
                 "kvoxctl [OPTION...] VERB [ARGUMENT...]", "kvoxctl [NOUN] [VERB] --help",
                 "kvoxctl --version"});

  page.Section("Description");
  page.Paragraph(
      "It asks kvoxd(8) about processors, tap points, buffers, use cases and parameters, and tells "
      "it what to do with them. Each call is one verb; most belong to a noun. Options may stand "
      "before or behind the verb; those of call before it only.");

  page.Section("Options");
  page.Paragraph("Every verb takes these; some have more.");
  page.Terms(RowsOf(client::CommonOptions()));
  page.Term("-h, --help", "Show what there is, or what a verb takes, with an example");
  page.Term("--version", "Show the version");

  page.Section("Verbs");
  for (const client::Noun& noun : client::AllNouns()) DescribeVerbs(page, noun);
  DescribeVerbs(page, {"", "Verbs without a noun"});

  DescribeNames(page);
  DescribeOutput(page);

  page.Section("Exit status");
  page.Terms(RowsOf(client::AllExits()));
  page.Paragraph(
      "call ends with 0 to 3 and 74 alone: 1 for every status but 0, 3 when no answer comes.");

  page.Section("Environment");
  page.Terms(client::Variables());

  page.Section("Files");
  page.Terms({
      {binder::SocketPath("/run/kvox", KvoxDescriptor()), "Socket of a daemon of root"},
      {binder::SocketPath("$XDG_RUNTIME_DIR/kvox", KvoxDescriptor()),
       "Socket of a daemon of this user"},
  });

  DescribeExamples(page);
  page.SeeAlso({"kvosim(1)", "kvoxd(8)"});
  return page.text();
}

}  // namespace kvox::manual
