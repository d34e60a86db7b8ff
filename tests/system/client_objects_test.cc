#include <nlohmann/json.hpp>

#include "tests/support/terminal.h"
#include "tests/system/system_fixture.h"

namespace kvox {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;

/// The verbs about processors, tap points and buffers.
class ClientObjectsTest : public SystemTest {
 protected:
  ClientObjectsTest() { StartBoth(); }
};

TEST_F(ClientObjectsTest, ProcessorsLiveFromNewToDelete) {
  EXPECT_EQ(Json("processor types")["types"][1]["type"], "arel");
  EXPECT_EQ(Json("processor new abcd pass")["type"], "pass");
  EXPECT_EQ(Do("processor list"), Call("ListProcessors"));
  EXPECT_EQ(Do("processor list --short"), "abcd\tpass\t-\t-\t0\n");
  Do("processor enable abcd");
  EXPECT_EQ(Json("processor status abcd")["enabled"], true);
  Do("processor disable 0x61626364");
  const json info = Json("processor info abcd");
  EXPECT_EQ(info["enabled"], false);
  EXPECT_EQ(info["block_length_frames"], 4800);
  ExpectRefusal("processor info abce", 4, "there is no processor 'abce'; did you mean 'abcd'?");
  ExpectRefusal("processor new xxxx pas", 4, "there is no processor type 'pas'; did you mean");
  Do("processor delete abcd");
  EXPECT_EQ(Json("processor list")["processors"], json::array());
  ExpectRefusal("processor delete abcd", 4, "there is no processor 'abcd'");
}

TEST_F(ClientObjectsTest, NamesMayHoldAnythingAndSteerNoTerminal) {
  Run({"processor", "new", "a b ", "pass"});
  EXPECT_EQ(Json("processor list")["processors"][0]["id"], "a b");
  EXPECT_EQ(Run({"processor", "enable", "a b"}).exit_status, 0);
  EXPECT_EQ(Run({"processor", "delete", "a b "}).exit_status, 0);
  EXPECT_EQ(Json("processor list")["processors"], json::array());

  for (const char* id : {"5", "    ", " abc", "ab\n!", "\x1b(0b"}) {
    EXPECT_THAT(Run({"processor", "new", id, "pass"}).err, HasSubstr("not four printable")) << id;
  }
  Run({"call", "NewProcessorWithType",
       "\x1b"
       "c\x7f!",
       "pass"});
  EXPECT_THAT(Do("processor list"), HasSubstr(" ?c?! "));
  EXPECT_THAT(Json("processor list").dump(), HasSubstr("\x7f"));
  EXPECT_THAT(Do("processor list --json"), HasSubstr("\\u001bc\\u007f!"));
  EXPECT_THAT(Call("ListProcessors"), HasSubstr("\x1b"
                                                "c\x7f!"))
      << "as it is, for programs";
  Terminal terminal(KVOXCTL_PROGRAM, {"call", "ListProcessors"}, directory_ / "terminal");
  EXPECT_TRUE(terminal.Shows("Enabled  \r\n  \\x1bc\\x7f! ")) << "rows stay rows";
  EXPECT_EQ(terminal.Wait(), 0);
  EXPECT_THAT(Run({"processor", "info", "\x1b(0b"}).err, HasSubstr("no processor '?(0b'"));
}

TEST_F(ClientObjectsTest, ListsShowTapPointsAndBuffers) {
  EXPECT_EQ(Do("tap list 2 4"), Call("TapList 2") + Call("TapList 4"));
  const json taps = Json("tap list");
  EXPECT_EQ(taps["taps"].size(), 10u);
  EXPECT_EQ(taps["taps"][0]["tap"], "2:imic.0");
  EXPECT_EQ(taps["taps"][0]["sample_rate_hz"], 48000);
  EXPECT_EQ(taps["unread_rows"], 0);
  ExpectRefusal("tap list 7", 4, "the co-processor has no core 7");

  EXPECT_EQ(Do("buffer list"), Call("ListTapOutBuffers") + Call("ListInjectBuffers"));
  const json injects = Json("buffer list inject");
  EXPECT_EQ(injects["buffers"].size(), 8u);
  EXPECT_EQ(injects["buffers"][7]["name"], "inject41");
}

TEST_F(ClientObjectsTest, TapPointsGoByNameOnWhicheverCore) {
  Do("tap connect genp.0 tapout0 inject0");
  Do("tap enable 2:genp.0");
  Do("tap block-length genp.0 960");
  Do("tap jitter-buffer genp.0 0x10");
  const json tap = Json("tap info genp.0");
  EXPECT_EQ(tap["tap"], "2:genp.0");
  EXPECT_EQ(tap["tapout"], "tapout0");
  EXPECT_EQ(tap["inject"], "inject0");
  EXPECT_EQ(tap["block_length_frames"], 960);
  EXPECT_EQ(tap["enabled"], true);
  Do("tap disable genp.0");
  Do("tap disconnect genp.0");
  EXPECT_EQ(Json("tap info 2:genp.0")["tapout"], nullptr);
  EXPECT_EQ(Json("tap info adet")["core"], 3) << "the only index";

  ExpectRefusal("tap info genp", 2, "may be any of 2:genp.0 2:genp.1; name one");
  ExpectRefusal("tap info 3:imic.0", 4, "did you mean '2:imic.0' or '3:amic.0'");
  ExpectRefusal("tap info 9:imic.0", 4, "did you mean '2:imic.0' or '3:amic.0'");
  ExpectRefusal("tap connect genp.0 tapout9 none", 4, "no tap-out buffer 'tapout9'; did you mean");
  ExpectRefusal("tap block-length genp.0 0", 2, "FRAMES: '0' is not a number from 1 to");
  ExpectRefusal("tap jitter-buffer genp.0 32768", 2, "is not a number from 0 to 32767");
  ExpectRefusal("tap gain genp.0 0.5 --ramp 10", 1,
                "Unavailable; TapSetGain: ERROR; kvoxd sets no gain");
  ExpectRefusal("tap block-length genp.0 2000000", 1, "failed, status -22");
}

TEST_F(ClientObjectsTest, VerbsForTapPointsCostFewExchangesWithTheCoProcessor) {
  const auto exchanges = [this] {
    const json stats = Stats();
    int64_t sum = 0;
    for (const json& command : stats["control"]["commands"]) sum += command["count"].get<int64_t>();
    return sum;
  };
  const struct {
    const char* line;
    int64_t most;
  } rows[] = {
      {"tap enable 2:imic.0", 1},
      {"tap info 4:vpdl.0", 1},
      {"tap block-length 2:genp.0 480", 1},
      {"tap disconnect 3:adet.0", 1},
      {"tap connect 2:genp.0 none inject0", 1},
      {"tap connect 2:genp.0 tapout0 inject0", 2},  // kvoxd asks for the format as well
      {"tap enable imic.0", 3},
      {"tap info imic.0", 3},
      {"tap disable vpdl.0", 4},  // to know that no other core has the name, all are asked
      {"connect pass tapout0 inject0", 0},
      {"buffer list", 0},
  };
  Do("processor new pass");
  for (const auto& row : rows) {
    const int64_t before = exchanges();
    Do(row.line);
    EXPECT_LE(exchanges() - before, row.most) << row.line;
  }
}

TEST_F(ClientObjectsTest, ParametersAreReadAndSet) {
  Do("processor new pass");
  EXPECT_EQ(Do("param list"), Call("ListParameters"));
  Do("param set pass BLOCK_LENGTH 960");
  Do("param set pass test-mode true");
  const json parameters = Json("param get pass")["parameters"];
  EXPECT_EQ(parameters.size(), 12u);
  EXPECT_EQ(Json("param get pass block_length")["parameters"][0]["value"], 960);
  EXPECT_EQ(Do("param get pass TEST_MODE --short"), "TEST_MODE\t0\t1\n");
  EXPECT_THAT(Do("param get pass AUDIO_FORMAT 3"), HasSubstr("AUDIO_FORMAT 3"));
  ExpectRefusal("param set pass BLOCK_LENGTH 1000", 2, "480 to 24000 frames in steps of 480");
  ExpectRefusal("param set pass BLOCK_LENGTH 4294967296", 2, "-2147483648 to 2147483647");
  ExpectRefusal("param set pass VERSION 1", 1, "VERSION of pass: ");
  ExpectRefusal("param get pass BLOCK_LEN", 4, "no parameter 'BLOCK_LEN'; did you mean");
  ExpectRefusal("param get pass 9", 1, "'kvoxctl param get pass' shows what there is");
}

}  // namespace
}  // namespace kvox
