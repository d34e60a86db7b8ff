#include <nlohmann/json.hpp>

#include "tests/system/mute_service.h"
#include "tests/system/system_fixture.h"

namespace kvox {
namespace {

using ::testing::HasSubstr;

class ClientTest : public SystemTest {
 protected:
  /// kvoxctl as a shell runs it; exits with the shell's status.
  ClientRun Shell(const std::string& arguments_and_more) {
    const std::string line = std::string(KVOXCTL_PROGRAM) + " " + arguments_and_more;
    Process shell("/bin/sh", {"-c", line}, directory_ / "shell");
    const int status = shell.Wait();
    return {status, shell.Out(), shell.Err()};
  }
};

TEST_F(ClientTest, PrintsAnswersAsLinesAndAsJson) {
  StartBoth();
  EXPECT_EQ(Run(Words("--json call Ping")).out, "{\"status\": 0, \"value\": 0.0, \"lines\": []}\n");
  EXPECT_EQ(Run(Words("call Ping")).out, "");
  EXPECT_EQ(Call("NewProcessorWithType ABCD 0x70617373"),
            "Creating new processor 'ABCD' of type 'pass'\n");
  EXPECT_EQ(
      Call("ProcessorEnable 1094861636 true"),
      "Enable processor 'ABCD'\n0 buffers enabled, 0 processors active, wakelock needed: 0\n");
  EXPECT_EQ(Run(Words("--json call ProcessorIsEnabled ABCD")).out,
            "{\"status\": 0, \"value\": 1.0, \"lines\": [\"Get processor 'ABCD' enabled state\", "
            "\"Get processor 'ABCD' enabled state: 1\"]}\n");
  const ClientRun refused = Run(Words("--json call Connect ABCD -1 99"));
  EXPECT_EQ(refused.exit_status, 1);
  const auto answer = nlohmann::json::parse(refused.out);
  EXPECT_EQ(answer["status"], 3);
  EXPECT_EQ(answer["lines"].back(), "Connect: INVALID PARAMETER");
}

TEST_F(ClientTest, WrongUsageNamesTheArgumentAndSendsNothing) {
  const struct {
    const char* line;
    const char* message;
  } rows[] = {
      {"call", "METHOD is missing"},
      {"call Pong", "METHOD: there is no method 'Pong'; did you mean 'Ping'?"},
      {"call NewProcessor", "NewProcessor takes PROCESSOR; 0 given"},
      {"call NewProcessor abcde", "PROCESSOR: 'abcde' is not four characters or a number"},
      {"call TapEnable 2 imic 0 yes", "ENABLE: 'yes' is not true, false, 1 or 0"},
      {"call Ping again", "Ping: unexpected argument 'again'"},
      {"call SetParameter pass BLOCK_LENGTH 0 960", "VALUE: '960' is not i:960, f:0.5 or v:1,2,3"},
      {"call Debug fine h\xc3", "WORD: 'h?' is not a text in UTF-8"},
      {"call SendAudio pass 5 0 1 1 /no/such/file", "FILE: cannot read '/no/such/file'"},
      {"call SendAudio pass 5 0 1 1 /", "FILE: '/' is not a regular file"},
      {"call SendAudio pass 5 0 1 1 /dev/zero", "FILE: '/dev/zero' is not a regular file"},
      {"call SendAudio pass 5 0 1 1 dev/fifo", "FILE: 'dev/fifo' is not a regular file"},
      {"call SendAudio pass 5 0 1 1 large", "FILE: 'large' is larger than the 1047552 bytes"},
      {"call RegisterReceiveAudioCallback art0 1 /", "FILE: cannot write '/'"},
      {"call RegisterReceiveAudioCallback art0 1 dev/fifo", "FILE: cannot write 'dev/fifo'"},
      {"call RegisterReceiveAudioCallback art0 -1 f", "SECONDS: '-1' is not between 0 and a year"},
  };
  directory_.MakeFifo("dev/fifo");
  std::ofstream(directory_ / "large") << std::string(1'100'000, 'x');
  std::filesystem::current_path(directory_.path());
  for (const auto& row : rows) {
    const ClientRun run = Run(Words(row.line));
    EXPECT_EQ(run.exit_status, 2) << row.line;
    EXPECT_THAT(run.err, HasSubstr(row.message));
    EXPECT_EQ(run.out, "");
  }
  std::filesystem::current_path("/");
}

TEST_F(ClientTest, WithoutADaemonItSaysWhereItLooked) {
  for (const char* line : {"ping", "call Ping"}) {
    const ClientRun run = Run(Words(line));
    EXPECT_EQ(run.exit_status, 3) << line;
    EXPECT_THAT(run.err, HasSubstr("KVOX_RUNTIME_DIR"));
  }
}

TEST_F(ClientTest, OutputThatCannotBeWrittenIsReported) {
  MakeNodes();
  StartDaemon();
  for (const char* line : {"--help >/dev/full", "call ListProcessors >/dev/full", "ping >&-",
                           "--json call Ping >&-"}) {
    const ClientRun run = Shell(line);
    EXPECT_EQ(run.exit_status, 74) << line;
    EXPECT_THAT(run.err, HasSubstr("kvoxctl: cannot write to standard output: ")) << line;
  }
  // A closed pipe is not an error: the reader had what it wanted.
  const ClientRun piped = Shell("--version | true; (sleep 0.1; " KVOXCTL_PROGRAM
                                " call ListProcessors; echo status $? >&2) | true");
  EXPECT_EQ(piped.err, "status 0\n");
}

TEST_F(ClientTest, ACallThatIsTooLargeSaysSo) {
  MakeNodes();
  StartDaemon();
  std::vector<std::string> words(6, std::string(120'000, 'x'));
  words.insert(words.begin(), {"call", "Debug"});
  const ClientRun run = Run(words);
  EXPECT_EQ(run.exit_status, 2);
  EXPECT_THAT(run.err, HasSubstr("Debug: the call or its answer is larger than the 1 MiB"));
}

TEST_F(ClientTest, DoesNotWaitForAnAnswerForEver) {
  for (const char* line : {"ping --timeout 0.2", "--timeout 0.2 call Ping"}) {
    MuteService service(directory_ / "run");
    Process client(KVOXCTL_PROGRAM, Words(line), directory_ / "kvoxctl");
    service.TakeCall();
    EXPECT_EQ(client.Wait(), line[0] == 'p' ? 6 : 3);
    EXPECT_EQ(client.Err(),
              "kvoxctl: Ping was not answered within 0.2 s; see whether kvoxd hangs, and restart "
              "it\n");
  }
}

}  // namespace
}  // namespace kvox
