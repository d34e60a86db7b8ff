#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "client/command_line/help.h"
#include "platform/platform.h"
#include "tests/support/process.h"
#include "tests/support/temp_directory.h"

namespace kvox::manual {
namespace {

using ::testing::HasSubstr;

constexpr const char* kFiles[] = {"kvoxctl.1", "kvosim.1", "kvoxd.8"};

/// The page as a reader sees it, in lines as long as needed.
std::string Rendered(const std::string& file) {
  const TempDirectory directory;
  setenv("MANWIDTH", "1000", 1);
  Process man("/usr/bin/man",
              {"--warnings", "-E", "UTF-8", "-l", std::string(MANUAL_DIRECTORY "/") + file},
              directory / "man");
  EXPECT_EQ(man.Wait(), 0) << file;
  EXPECT_EQ(man.Err(), "") << file;
  return man.Out();
}

TEST(Pages, RenderWithoutAWarning) {
  const TempDirectory directory;
  for (const std::string file : kFiles) {
    Process mandoc("/usr/bin/mandoc",
                   {"-Tlint", "-W", "warning", std::string(MANUAL_DIRECTORY "/") + file},
                   directory / "mandoc");
    EXPECT_EQ(mandoc.Wait(), 0) << mandoc.Out();
    EXPECT_EQ(mandoc.Out(), "");
    EXPECT_THAT(Rendered(file), HasSubstr("SEE ALSO"));
  }
}

TEST(Pages, TellAllThatHelpTells) {
  const std::string kvoxctl = Rendered("kvoxctl.1");
  for (const client::Verb& verb : client::AllVerbs()) {
    EXPECT_THAT(kvoxctl, HasSubstr(" " + UsageOf(verb) + "\n"));
    EXPECT_THAT(kvoxctl, HasSubstr(std::string("Example: kvoxctl ") + verb.example + "\n"));
  }
  EXPECT_THAT(kvoxctl, HasSubstr("  ConnectTap CORE TAP INDEX TAPOUT INJECT\n"));
  EXPECT_THAT(kvoxctl, HasSubstr("NO_COLOR"));
  const std::string kvosim = Rendered("kvosim.1");
  for (const char* part : {"compare SOURCE RECORDED [--skip-silence]\n", "--keep-rate",
                           "--stats FILE", "SIGUSR1", "reply-late", "no simulator answers"}) {
    EXPECT_THAT(kvosim, HasSubstr(part));
  }
  const std::string kvoxd = Rendered("kvoxd.8");
  for (const HelpRow& row : DaemonVariables()) EXPECT_THAT(kvoxd, HasSubstr(row.what));
}

}  // namespace
}  // namespace kvox::manual
