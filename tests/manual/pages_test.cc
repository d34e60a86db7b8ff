#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "client/command_line/help.h"
#include "daemon/usage.h"
#include "platform/platform.h"
#include "sim/command_line.h"
#include "sim/faults/fault.h"
#include "tests/support/process.h"
#include "tests/support/temp_directory.h"

namespace kvox::manual {
namespace {

using ::testing::HasSubstr;

/// The page as a reader sees it, in lines as long as needed.
std::string Rendered(const std::string& file) {
  const TempDirectory directory;
  setenv("MANWIDTH", "1000", 1);
  Process man("/usr/bin/man",
              {"--warnings", "-E", "UTF-8", "-l", std::string(MANUAL_DIRECTORY "/") + file},
              directory / "man");
  EXPECT_EQ(man.Wait(), 0) << file;
  EXPECT_EQ(man.Err(), "") << file;
  EXPECT_THAT(man.Out(), HasSubstr("SEE ALSO"));
  return man.Out();
}

void ExpectRows(const std::string& page, const std::vector<HelpRow>& rows) {
  for (const HelpRow& row : rows) {
    EXPECT_THAT(page, HasSubstr(" " + row.what + "\n"));
    EXPECT_THAT(page, HasSubstr(" " + row.help + "\n"));
  }
}

TEST(Pages, TellAllThatHelpTells) {
  const std::string kvoxctl = Rendered("kvoxctl.1");
  for (const client::Verb& verb : client::AllVerbs()) {
    EXPECT_THAT(kvoxctl, HasSubstr(" " + UsageOf(verb) + "\n"));
    EXPECT_THAT(kvoxctl, HasSubstr(std::string(" ") + verb.summary + "\n"));
    EXPECT_THAT(kvoxctl, HasSubstr(std::string("Example: kvoxctl ") + verb.example + "\n"));
    for (const client::Argument& argument : verb.arguments) {
      ExpectRows(kvoxctl, {{argument.name, argument.help}});
    }
    for (const client::Option& option : verb.options) {
      ExpectRows(kvoxctl, {{Shown(option), option.help}});
    }
  }
  EXPECT_THAT(kvoxctl, HasSubstr("  ConnectTap CORE TAP INDEX TAPOUT INJECT\n"));
  ExpectRows(kvoxctl, client::Variables());

  const std::string kvosim = Rendered("kvosim.1");
  for (const auto& rows : {sim::CtlCommands(), sim::Signals(), sim::Exits(), sim::Variables()}) {
    ExpectRows(kvosim, rows);
  }
  for (const sim::FaultKindRow& row : sim::FaultKinds()) ExpectRows(kvosim, {{row.name, row.help}});
  for (const char* part : {" compare SOURCE RECORDED [--skip-silence]\n", " -h, --help\n",
                           " --write-default FILE|-\n", " --skip-silence\n", "[[fault]]."}) {
    EXPECT_THAT(kvosim, HasSubstr(part));
  }

  const std::string kvoxd = Rendered("kvoxd.8");
  for (const auto& rows : {UsageOptions(), DaemonVariables(), UsageSignals(), UsageExits()}) {
    ExpectRows(kvoxd, rows);
  }
  EXPECT_THAT(kvoxd, HasSubstr("Serves the audio co-processor's clients"));
}

}  // namespace
}  // namespace kvox::manual
