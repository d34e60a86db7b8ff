#include <nlohmann/json.hpp>

#include "tests/support/terminal.h"
#include "tests/system/system_fixture.h"

namespace kvox {
namespace {

using nlohmann::json;
using ::testing::ContainsRegex;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

// The escape sequences with which a program enters and leaves an xterm's full screen.
constexpr char kTake[] = "\x1b[?1049h";
constexpr char kGiveBack[] = "\x1b[?1049l";
constexpr char kCtrlL[] = "\f";
constexpr char kRight[] = "\x1bOC";  // of an xterm
constexpr char kLeft[] = "\x1bOD";

class WatchTest : public SystemTest {
 protected:
  /// Returns when it has looked twice.
  std::unique_ptr<Process> Watch(const std::string& options) {
    const std::string look = "KVO tap list core:4";
    const int before = CountOf(look, daemon_->Err());
    auto watch = std::make_unique<Process>(
        KVOXCTL_PROGRAM, Words("watch --json --interval 0.1 " + options), directory_ / "watch");
    EXPECT_TRUE(DaemonLogs(look, before + 2));
    return watch;
  }
};

/// `top` and `watch`.
class ClientLiveTest : public WatchTest {
 protected:
  ClientLiveTest() {
    setenv("TERM", "xterm", 1);
    StartBoth();
    Call("EnableUseCase MIC_IN true");
  }

  std::unique_ptr<Terminal> Top(const std::string& options = "") {
    auto terminal = std::make_unique<Terminal>(
        KVOXCTL_PROGRAM, Words("top --interval 0.1 " + options), directory_ / "top");
    before_ = terminal->modes_before();
    return terminal;
  }

  void ExpectGivenBack(Terminal& terminal) {
    EXPECT_GT(terminal.Shown().rfind(kGiveBack) + 1, terminal.Shown().rfind(kTake) + 1);
    const termios after = terminal.Modes();
    EXPECT_EQ(after.c_lflag, before_.c_lflag);
    EXPECT_EQ(after.c_iflag, before_.c_iflag);
    EXPECT_EQ(after.c_oflag, before_.c_oflag);
  }

  /// A screen drawn from nothing.
  std::string Redrawn(Terminal& terminal) {
    const size_t before = terminal.Shown().size();
    terminal.Press(kCtrlL);
    std::string drawn;
    EXPECT_TRUE(WaitFor([&] {
      drawn = terminal.Shown().substr(before);
      const size_t taken = drawn.rfind(kTake);
      drawn.erase(0, taken == drawn.npos ? drawn.size() : taken);
      return drawn.find("q quit") != drawn.npos;
    }));
    return drawn;
  }

  int BufferEntries() {
    return json::parse(
        Run(Words("--json call ProcessorGetStats pas1")).out)["stats"]["buffer_entries"];
  }

  termios before_ = {};
};

TEST_F(ClientLiveTest, TopDrawsSortsAndQuits) {
  const auto terminal = Top("--measure");
  ASSERT_TRUE(terminal->Shows("pas1")) << terminal->Err();
  EXPECT_NE(terminal->Modes().c_lflag, before_.c_lflag);
  EXPECT_TRUE(terminal->Shows("10.0")) << "its period";
  terminal->Press(kRight);
  EXPECT_TRUE(terminal->Shows("tapout20 > inject20"));
  terminal->Press(kLeft);
  const std::string first = Redrawn(*terminal);
  EXPECT_LT(first.find("tapout41"), first.find("inject0"));
  terminal->Press("n");
  const std::string sorted = Redrawn(*terminal);
  EXPECT_LT(sorted.find("inject41"), sorted.find("tapout0"));
  EXPECT_LT(sorted.rfind("tapout3"), sorted.rfind("tapout20"));
  terminal->Press("/pas1\n");
  EXPECT_EQ(Redrawn(*terminal).find("tapout3"), std::string::npos) << "the filter hides it";
  EXPECT_EQ(BufferEntries(), 2048) << "times are kept meanwhile";
  terminal->Press("\x13");  // Ctrl-S, after which nothing more is shown
  terminal->Press("q");
  EXPECT_EQ(terminal->Wait(), 0);
  ExpectGivenBack(*terminal);
  EXPECT_EQ(terminal->Err(), "");
  EXPECT_EQ(BufferEntries(), 0) << "and no longer";
}

TEST_F(ClientLiveTest, ARawCallShowsControlCharactersAsEscapes) {
  const std::string file = "/tmp/a\n  Id  \x1b[2J\xc2\x9b";
  const std::vector<std::string> words = {"call", "Debug", file};
  Terminal terminal(KVOXCTL_PROGRAM, words, directory_ / "call");
  EXPECT_EQ(terminal.Wait(), 1);
  EXPECT_EQ(CountOf("/tmp/a\\n  Id  \\x1b[2J\\xc2\\x9b\r\n", terminal.Shown()), 1)
      << terminal.Shown();
  EXPECT_THAT(Run(words).out, HasSubstr(file + "\n")) << "to a file as it is";
}

TEST_F(ClientLiveTest, EverySignalGivesTheTerminalBack) {
  const struct {
    int signal;
    int status;
  } rows[] = {{SIGINT, 0},         {SIGTERM, -SIGTERM}, {SIGHUP, -SIGHUP},  {SIGQUIT, -SIGQUIT},
              {SIGUSR1, -SIGUSR1}, {SIGALRM, -SIGALRM}, {SIGABRT, -SIGABRT}};
  for (const auto& row : rows) {
    const auto terminal = Top();
    ASSERT_TRUE(terminal->Shows("pas1"));
    terminal->Signal(row.signal);
    EXPECT_EQ(terminal->Wait(), row.status);
    ExpectGivenBack(*terminal);
  }
}

TEST_F(ClientLiveTest, TopIsStoppedAndContinuedAndFitsTinyWindows) {
  const auto terminal = Top();
  ASSERT_TRUE(terminal->Shows("pas1"));
  terminal->Press("\x1a");  // Ctrl-Z
  ASSERT_TRUE(WaitFor([&] { return terminal->IsStopped(); }));
  ExpectGivenBack(*terminal);
  const size_t stopped = terminal->Shown().size();
  terminal->Signal(SIGCONT);
  EXPECT_TRUE(terminal->Shows("pas1", stopped));
  for (const auto& [lines, columns] :
       {std::pair<unsigned short, unsigned short>(1, 1), {2, 200}, {3, 5}, {200, 3}}) {
    const size_t before = terminal->Shown().size();
    terminal->Resize(lines, columns);
    EXPECT_TRUE(terminal->Shows("\x1b[", before)) << "it draws";
  }
  terminal->Resize(30, 120);
  EXPECT_THAT(Redrawn(*terminal), HasSubstr("tapout20 > inject20"));
  terminal->Press("q");
  EXPECT_EQ(terminal->Wait(), 0);
  ExpectGivenBack(*terminal);
}

TEST_F(ClientLiveTest, TopOutlivesTheDaemon) {
  const auto terminal = Top();
  ASSERT_TRUE(terminal->Shows("pas1"));
  daemon_.reset();
  EXPECT_TRUE(terminal->Shows("away since"));
  EXPECT_THAT(Redrawn(*terminal), HasSubstr("pas1"));
  StartDaemon();
  EXPECT_TRUE(WaitFor([&] { return CountOf("kvoxd answers in", Redrawn(*terminal)) > 0; }));

  daemon_->Freeze();
  EXPECT_TRUE(terminal->Shows("not answered for"));
  terminal->Press("q");
  EXPECT_EQ(terminal->Wait(), 6) << "the call under way has no answer";
  ExpectGivenBack(*terminal);
  EXPECT_THAT(terminal->Err(), HasSubstr("was not answered within 2 s"));
}

TEST_F(ClientLiveTest, TopNeedsATerminalOrBatch) {
  const ClientRun none = Run({"top"});
  EXPECT_EQ(none.exit_status, 2);
  EXPECT_THAT(none.err, HasSubstr("'kvoxctl top --batch' needs no terminal"));
  EXPECT_EQ(Run(Words("top --batch --sort share")).exit_status, 2);
  for (const char* type : {"dumb", "no-such-terminal", ""}) {
    setenv("TERM", type, 1);
    const auto terminal = Top();
    EXPECT_EQ(terminal->Wait(), 2);
    EXPECT_EQ(terminal->Modes().c_lflag, before_.c_lflag);
    EXPECT_THAT(terminal->Err(), HasSubstr("set TERM to the right one"));
  }
}

TEST_F(ClientLiveTest, BatchPrintsARefreshAtATime) {
  Call("ProcessorSetStatsMaxBufferEntries pas1 16");
  const ClientRun run = Run(Words("top --json --measure -n 3 --interval 0.2 --sort name"));
  EXPECT_EQ(run.exit_status, 0) << run.err;
  std::istringstream lines(run.out);
  json refresh;
  for (std::string line; std::getline(lines, line);) refresh = json::parse(line);
  EXPECT_EQ(CountOf("\n", run.out), 3);
  EXPECT_EQ(refresh["daemon"], true);
  ASSERT_EQ(refresh["rows"].size(), 17u);
  EXPECT_EQ(refresh["rows"][0]["name"], "inject0");
  const json& processor = refresh["rows"][8];
  EXPECT_EQ(processor["name"], "pas1");
  EXPECT_EQ(processor["to"], json::array({"inject20"}));
  EXPECT_NEAR(processor["average_period_ms"].get<double>(), 10, 2);
  EXPECT_GT(processor["blocks"].get<int>(), 10);
  EXPECT_LE(processor["active_share"].get<double>(), 1);
  EXPECT_EQ(BufferEntries(), 16) << "what others have set stays";

  const ClientRun rows = Run(Words("top --short -n 1 --sort name --reverse"));
  EXPECT_THAT(rows.out, ContainsRegex("pas1\tpass\t1\ttapout20\tinject20\t-\t[0-9.]+\t-\t-"
                                      "\t-\t-\t0\t[0-9]+\t[0-9]+\t[0-9.]+\n"));
  const ClientRun plain = Run(Words("top --batch -n 1"));
  EXPECT_THAT(plain.out,
              ContainsRegex("processor pas1      pass on +[0-9]+ +[0-9]+ +[0-9.]+ +[0-9.]+ "
                            "tapout20 > inject20\n"));
}

TEST_F(ClientLiveTest, WatchTellsEveryChange) {
  const auto watch = Watch("--count 9");
  Call("NewProcessorWithType abcd pass");
  Call("Connect abcd 0 -1");
  Call("ConnectTap 2 genp 0 0 -1");
  EXPECT_TRUE(WaitFor([&] { return CountOf("\n", watch->Out()) == 3; })) << watch->Out();
  daemon_->Signal(SIGKILL);
  daemon_.reset();
  EXPECT_TRUE(WaitFor([&] { return CountOf("gone", watch->Out()) == 1; })) << "each line at once";
  StartDaemon();
  EXPECT_EQ(watch->Wait(), 0);
  std::vector<std::string> told;
  std::istringstream lines(watch->Out());
  for (std::string line; std::getline(lines, line);) {
    const json change = json::parse(line);
    const json& peer = change["peer"];
    told.push_back(change["name"].get<std::string>() + " " + change["change"].get<std::string>() +
                   (peer.is_null() ? "" : " " + peer.get<std::string>()));
  }
  told.resize(std::min<size_t>(told.size(), 5));
  EXPECT_THAT(told, ElementsAre("abcd appeared pass", "abcd connected tapout0",
                                "2:genp.0 bound tapout0", "kvoxd gone", "kvoxd appeared"));
}

TEST_F(WatchTest, ABufferWhoseDeviceFailsForGoodIsShownAsGivenUp) {
  // Reading a directory fails, and opening one that is gone does.
  const auto broken = directory_ / "broken";
  std::filesystem::create_directory(broken);
  std::filesystem::create_symlink(broken, directory_ / "dev/xdv-kvox_tapout0");
  directory_.MakeFifo("dev/xdv-kvox_tapout1");
  directory_.MakeFifo("dev/xdv-kvox_inject0");
  StartDaemon();
  const auto watch = Watch("--count 3");
  Do("io start tapout0");
  Do("io start tapout1");
  std::filesystem::remove(broken);
  EXPECT_EQ(watch->Wait(), 0);
  EXPECT_THAT(watch->Out(), HasSubstr("\"tapout0\", \"change\": \"gave up\""));
  const ClientRun list = Run(Words("buffer list tap-out"));
  EXPECT_EQ(list.exit_status, 0);
  EXPECT_EQ(CountOf("gave up", list.err), 1) << list.err;
  EXPECT_THAT(list.err, HasSubstr("tapout0 gave up: its device fails; 'kvoxctl io start 0' tries"));
  EXPECT_EQ(Json("buffer list")["buffers"][0]["gave_up"], true);
  EXPECT_EQ(Json("buffer list")["buffers"][1]["gave_up"], false);
  EXPECT_THAT(Do("top --batch -n 1"), HasSubstr("tap-out   tapout0   -    gave up"));
  std::filesystem::create_directory(broken);
  Do("io start tapout0");
  EXPECT_EQ(Json("buffer list")["buffers"][0]["gave_up"], false);
}

TEST_F(ClientLiveTest, WatchEndsAsAsked) {
  EXPECT_EQ(Run(Words("watch --timeout 0.2")).exit_status, 0);
  const ClientRun missed = Run(Words("watch --timeout 0.2 --count 1"));
  EXPECT_EQ(missed.exit_status, 6);
  EXPECT_THAT(missed.err, HasSubstr("0 of 1 changes came in time"));
  const auto interrupted = Watch("");
  interrupted->Signal(SIGINT);
  EXPECT_EQ(interrupted->Wait(), 0);
  signal(SIGHUP, SIG_IGN);
  const auto left_alone = Watch("");
  signal(SIGHUP, SIG_DFL);
  left_alone->Signal(SIGHUP);
  EXPECT_TRUE(
      DaemonLogs("KVO tap list core:4", CountOf("KVO tap list core:4", daemon_->Err()) + 2));
  left_alone->Signal(SIGTERM);
  EXPECT_EQ(left_alone->Wait(), -SIGTERM);
  daemon_.reset();
  EXPECT_EQ(Run({"watch"}).exit_status, 3);
}

}  // namespace
}  // namespace kvox
