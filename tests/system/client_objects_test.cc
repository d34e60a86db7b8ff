#include "tests/system/machine.h"

namespace kvox {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;

/// The verbs about processors, tap points and buffers.
class ClientObjectsTest : public MachineTest {
 protected:
  ClientObjectsTest() {
    StartSimulator();
    StartDaemon();
  }

  /// The document that a verb prints; it must end with status 0.
  json Json(const std::string& line) {
    const ClientRun run = Run(Words(line + " --json"));
    EXPECT_EQ(run.exit_status, 0) << line << run.err;
    json document = json::parse(run.out, nullptr, false);
    EXPECT_EQ(document["schema"], 1) << run.out;
    return document;
  }

  void ExpectRefusal(const std::string& line, int exit_status, const std::string& message) {
    const ClientRun run = Run(Words(line));
    EXPECT_EQ(run.exit_status, exit_status) << line;
    EXPECT_THAT(run.err, HasSubstr(message)) << line;
    EXPECT_EQ(run.out, "") << line;
  }
};

TEST_F(ClientObjectsTest, ProcessorsLiveFromNewToDelete) {
  EXPECT_EQ(Json("processor types")["types"][1]["type"], "arel");
  EXPECT_EQ(Json("processor new abcd pass")["type"], "pass");
  EXPECT_EQ(Run(Words("processor list")).out, Call("ListProcessors"));
  EXPECT_EQ(Run(Words("processor list --short")).out, "abcd\tpass\t-\t-\t0\n");
  EXPECT_EQ(Run(Words("processor enable abcd")).exit_status, 0);
  EXPECT_EQ(Json("processor status abcd")["enabled"], true);
  EXPECT_EQ(Run(Words("processor disable 0x61626364")).exit_status, 0);
  const json info = Json("processor info abcd");
  EXPECT_EQ(info["enabled"], false);
  EXPECT_EQ(info["block_length_frames"], 4800);
  ExpectRefusal("processor info abce", 4, "there is no processor 'abce'; did you mean 'abcd'?");
  ExpectRefusal("processor new xxxx pas", 4, "there is no processor type 'pas'; did you mean");
  ExpectRefusal("processor new abcde pass", 2, "ID: 'abcde' is not four characters or a number");
  EXPECT_EQ(Run(Words("processor delete abcd")).exit_status, 0);
  EXPECT_EQ(Json("processor list")["processors"], json::array());
  ExpectRefusal("processor delete abcd", 4, "there is no processor 'abcd'");
}

TEST_F(ClientObjectsTest, ListsShowTapPointsAndBuffers) {
  EXPECT_EQ(Run(Words("tap list 2 4")).out, Call("TapList 2") + Call("TapList 4"));
  const json taps = Json("tap list");
  EXPECT_EQ(taps["taps"].size(), 10u);
  EXPECT_EQ(taps["taps"][0]["tap"], "2:imic.0");
  EXPECT_EQ(taps["taps"][0]["sample_rate_hz"], 48000);
  EXPECT_EQ(taps["unread_rows"], 0);
  const ClientRun silent = Run(Words("tap list 7"));
  EXPECT_EQ(silent.exit_status, 1);
  EXPECT_THAT(silent.err, HasSubstr("core 7: no list came"));

  EXPECT_EQ(Run(Words("buffer list")).out, Call("ListTapOutBuffers") + Call("ListInjectBuffers"));
  const json injects = Json("buffer list inject");
  EXPECT_EQ(injects["buffers"].size(), 8u);
  EXPECT_EQ(injects["buffers"][7]["name"], "inject41");
}

}  // namespace
}  // namespace kvox
