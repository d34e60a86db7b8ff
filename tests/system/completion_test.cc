// Completion of kvoxctl's words by a real bash.

#include "tests/support/terminal.h"
#include "tests/system/mute_service.h"
#include "tests/system/system_fixture.h"

namespace kvox {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::IsSupersetOf;

constexpr char kClearLine[] = "\x15";  // Ctrl-U

class CompletionTest : public SystemTest {
 protected:
  CompletionTest() { std::ofstream(directory_ / "script") << Do("completion bash"); }

  /// What bash offers at the end of a line, which it splits at ':' and '=' too.
  std::vector<std::string> Offers(const std::string& line, const std::string& parts,
                                  const std::string& typed) {
    const std::string program = R"(
        source "$1"; COMP_LINE=$2 COMP_POINT=${#2} COMP_WORDS=($3); [[ $2 == *' ' ]] && COMP_WORDS+=('')
        COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); set -u
        _kvoxctl "$5" "$4" ''; [[ ${#COMPREPLY[@]} -eq 0 ]] || printf '%s\n' "${COMPREPLY[@]}")";
    Process bash("/bin/bash",
                 {"--norc", "-c", program, "bash", directory_ / "script", line, parts, typed,
                  KVOXCTL_PROGRAM},
                 directory_ / "bash");
    EXPECT_EQ(bash.Wait(), 0) << line;
    EXPECT_EQ(bash.Err(), "") << line;
    std::vector<std::string> offers;
    std::istringstream lines(bash.Out());
    for (std::string offer; std::getline(lines, offer);) offers.push_back(offer);
    return offers;
  }
  std::vector<std::string> Offers(const std::string& line) {
    return Offers(line, line, line.substr(line.rfind(' ') + 1));
  }

  /// On a busy machine the daemon may need another look.
  template <typename Matcher, typename... Line>
  void ExpectOffers(const Matcher& matcher, const Line&... line) {
    std::vector<std::string> offers;
    WaitFor([&] {
      offers = Offers(line...);
      return ::testing::Matches(matcher)(offers);
    });
    EXPECT_THAT(offers, matcher);
  }
};

TEST_F(CompletionTest, OffersVerbsOptionsAndLiveNames) {
  StartBoth();
  Do("processor new pass");
  Do("processor new $(x) pass");
  ExpectOffers(ElementsAre("status"), "kvoxctl processor st");
  ExpectOffers(ElementsAre("always"), "kvoxctl ping --color=al", "kvoxctl ping --color = al", "al");
  ExpectOffers(Contains("imic.0"), "kvoxctl tap info ");
  ExpectOffers(ElementsAre("imic.0"), "kvoxctl --json tap info 2:im",
               "kvoxctl --json tap info 2 : im", "im");
  ExpectOffers(Contains("sspk.0"), "kvoxctl tap info 2:", "kvoxctl tap info 2 :", "");
  ExpectOffers(ElementsAre("2:imic.0"), "kvoxctl tap info '2:im", "kvoxctl tap info '2:im", "2:im");
  ExpectOffers(ElementsAre("pass"), "kvoxctl processor info pa");
  ExpectOffers(ElementsAre("\\$\\(x\\)"), "kvoxctl processor info $");
  ExpectOffers(IsSupersetOf({"all", "tapout0"}), "kvoxctl io start ");
  ExpectOffers(Contains("inject20"), "kvoxctl wait buffer inj");
  ExpectOffers(ElementsAre("MIC_IN"), "kvoxctl usecase enable mic_i");
  ExpectOffers(Contains("BLOCK_LENGTH"), "kvoxctl param set pass bl");
  ExpectOffers(Contains("arel"), "kvoxctl processor new art0 ");
}

TEST_F(CompletionTest, IsSilentWithoutADaemonAndNeverWaitsLong) {
  const auto ask = [this] {
    const auto begin = std::chrono::steady_clock::now();
    const ClientRun run = Run({"--complete", "tap", "info", ""});
    EXPECT_EQ(run.exit_status, 0);
    EXPECT_EQ(run.out + run.err, "");
    return std::chrono::steady_clock::now() - begin;
  };
  EXPECT_THAT(Offers("kvoxctl tap info "), IsEmpty());
  EXPECT_THAT(Offers("kvoxctl io st"), ElementsAre("start", "stop"));
  ask();
  const MuteService service(directory_ / "run");
  // It is cut off after a quarter of a second; the rest is for a busy machine.
  EXPECT_LT(ask(), std::chrono::seconds(5));
}

TEST_F(CompletionTest, WorksAtAPrompt) {
  StartBoth();
  const auto bin = std::filesystem::path(KVOXCTL_PROGRAM).parent_path().string();
  std::ofstream(directory_ / "spoken words.toml") << std::flush;
  std::ofstream(directory_ / "rc")
      << "PATH=" << bin << ":$PATH; source " << directory_ / "script"
      << "; unset HISTFILE; cd " << directory_.path() << "; PS1='at'your' service> '";
  setenv("TERM", "dumb", 1);
  setenv("INPUTRC", "/dev/null", 1);
  Terminal bash(
      "/bin/sh",
      {"-c", "exec 2>&1 bash --noprofile --rcfile " + (directory_ / "rc").string() + " -i"},
      directory_ / "terminal");
  ASSERT_TRUE(bash.Shows("atyour service> ")) << bash.Err();
  const struct {
    const char* keys;
    const char* shown;
  } rows[] = {
      {"kvoxctl tap inf\t2:imi\t", "kvoxctl tap info 2:imic.0 "},
      {"kvoxctl tap info '2:imi\t", "kvoxctl tap info '2:imic.0' "},
      {"kvoxctl --color=al\tbuffer list tap-\t", "kvoxctl --color=always buffer list tap-out "},
      {"kvoxctl apply spo\t", "kvoxctl apply spoken\\ words.toml "},
  };
  for (const auto& row : rows) {
    EXPECT_TRUE(WaitFor([&] {
      const size_t before = bash.Shown().size();
      bash.Press(std::string(kClearLine) + row.keys);
      // On a busy machine the daemon may need another look.
      for (int i = 0; i < 200; ++i) {
        if (bash.Shown().find(row.shown, before) != std::string::npos) return true;
        poll(nullptr, 0, 10);
      }
      return false;
    })) << bash.Shown();
  }
  bash.Press(std::string(kClearLine) + "exit\n");
  bash.Wait();
}

}  // namespace
}  // namespace kvox
