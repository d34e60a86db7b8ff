#include "web/server/commands.h"

#include <gmock/gmock.h>
#include <signal.h>

#include "libkvox/errors.h"

namespace kvox::web {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;
const std::atomic<bool> kNever = false;

using Words = std::vector<std::string>;

std::string Refusal(const Words& words, bool read_only = false) {
  try {
    CheckCommand(words, read_only);
    return "";
  } catch (const client::UsageError& error) {
    return error.what();
  }
}

TEST(CommandsTest, OnlyVerbsOfTheListAndNoFilesOfThisMachine) {
  EXPECT_EQ(CheckCommand({"param", "set", "pass", "GAIN", "-0.5"}, false),
            (Words{"--timeout", "20", "param", "set", "pass", "GAIN", "-0.5"}));
  EXPECT_EQ(Refusal({"apply", "-", "--dry-run"}), "");
  for (const Words& words : {Words{}, Words{"record", "imic.0", "/tmp/x.wav"}, Words{"bugreport"},
                             Words{"flight", "save", "/tmp/x"}, Words{"tap"},
                             Words{"--json", "tap", "list"}, Words{"call", "GetTapInfo"}}) {
    EXPECT_THAT(Refusal(words), HasSubstr("no verb")) << testing::PrintToString(words);
  }
  EXPECT_THAT(Refusal({"why", "--flight=/etc/passwd"}), HasSubstr("no option"));
  EXPECT_THAT(Refusal({"param", "set", "pass", "1", "2", "--element", "--dry-run"}),
              HasSubstr("no option"));
  EXPECT_THAT(Refusal({"why", "--", "x"}), HasSubstr("no option"));
  EXPECT_THAT(Refusal({"why", "-h"}), HasSubstr("no option"));
  EXPECT_THAT(Refusal({"apply", "/etc/passwd"}), HasSubstr("expected -"));
  EXPECT_THAT(Refusal({"apply", "-", "/etc/passwd"}), HasSubstr("expected -"));
  EXPECT_THAT(Refusal({"tap", "info", std::string("a\0b", 3)}), HasSubstr("zero byte"));
}

TEST(CommandsTest, AReadOnlyPageMayLookAndTry) {
  EXPECT_EQ(Refusal({"tap", "list"}, true), "");
  EXPECT_EQ(Refusal({"route", "imic.0", "pass", "--dry-run"}, true), "");
  EXPECT_THAT(Refusal({"tap", "enable", "imic.0"}, true), HasSubstr("read-only"));
  EXPECT_THAT(Refusal({"apply", "-"}, true), HasSubstr("read-only"));
  EXPECT_THAT(Refusal({"apply", "-", "--dry-run", "--dry-run=false"}, true),
              HasSubstr("no option"));
  EXPECT_THAT(Refusal({"tap", "enable", "imic.0", "--dry-run"}, true), HasSubstr("read-only"));
}

TEST(CommandsTest, AProgramGetsItsInputAndItsEndIsSeen) {
  const Ran ran = RunProgram("sh", {"-c", "cat; echo no >&2; exit 4"}, std::string(200'000, 'x'),
                             milliseconds(10'000), kNever);
  EXPECT_EQ(ran.status, 4);
  EXPECT_EQ(ran.out.size(), 200'000u);
  EXPECT_EQ(ran.err, "no\n");
  // It does not read what it is given.
  signal(SIGPIPE, SIG_IGN);
  EXPECT_EQ(RunProgram("true", {}, std::string(200'000, 'x'), milliseconds(10'000), kNever).status,
            0);
  EXPECT_THROW(RunProgram("/nowhere/kvoxctl", {}, "", milliseconds(1000), kNever),
               std::runtime_error);
}

TEST(CommandsTest, AProgramThatHangsOrFloodsIsEnded) {
  for (const char* const script : {"exec sleep 100", "exec yes"}) {
    const Ran ran = RunProgram("sh", {"-c", script}, "", milliseconds(1000), kNever);
    EXPECT_LT(ran.status, 0);
    EXPECT_THAT(ran.err, HasSubstr("try again"));
  }
}

}  // namespace
}  // namespace kvox::web
