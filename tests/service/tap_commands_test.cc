#include <thread>

#include "kvox/common/command_tables.h"
#include "tests/service/service_fixture.h"

namespace kvox {
namespace {

using ::testing::ElementsAre;

TapInfoState Tap(const char (&name)[5], uint8_t index, uint8_t core = 2) {
  FourCc code = 0;
  for (int i = 0; i < 4; ++i) code = code << 8 | static_cast<uint8_t>(name[i]);
  return {.tap = code,
          .index = index,
          .core = core,
          .enabled = 1,
          .sample_rate = 44100,
          .block_length = 480,
          .channels = 2,
          .bytes_per_sample = 2,
          .tapout_buffer = 0,
          .inject_buffer = kNoBuffer};
}

class TapCommands : public ServiceTest {
 protected:
  void SetUp() override {
    MakeNodes({"tapout0", "inject0"});
    StartService();
  }
};

TEST_F(TapCommands, ListsPageByPage) {
  EXPECT_THAT(Call(&KvoxService::TapList, 2).lines,
              ElementsAre("KVO tap list core:2", "  No tap points registered"));
  const std::string names[] = {"aaaa.0", "bbbb.1", "cccc.2", "dddd.3"};
  link_.taps = {Tap("aaaa", 0), Tap("bbbb", 1), Tap("cccc", 2), Tap("dddd", 3)};
  link_.opcodes.clear();
  const CommandResult list = Call(&KvoxService::TapList, 2);
  EXPECT_THAT(link_.opcodes, ElementsAre(0xCC, 0xCD, 0xCD, 0xCD, 0xCD, 0xCC));
  std::string table =
      "  Id        Format              BlockLen  NonInterl JitterBuf OutBuffer InBuffer  Enabled  ";
  for (const std::string& name : names) {
    table += "\n  " + name +
             "    44.1kHz, 2ch, i16   480       0         0         tapout0   -         1        ";
  }
  EXPECT_THAT(list.lines, ElementsAre("KVO tap list core:2", table));
}

TEST_F(TapCommands, ListsThatFailOrNeverEndAreOneAnswer) {
  link_.failures[CMD_TAP_INFO_ID] = -5;
  link_.taps = {Tap("aaaa", 0)};
  CommandResult list = Call(&KvoxService::TapList, 2);
  EXPECT_EQ(StatusOf(list), 0);
  EXPECT_EQ(list.lines.back(), "  No tap points");
  link_.failures.clear();
  link_.taps.assign(4, Tap("aaaa", 0));
  link_.endless_list = true;
  link_.opcodes.clear();
  list = Call(&KvoxService::TapList, 2);
  EXPECT_EQ(list.lines.back(), "  No tap points");
  EXPECT_EQ(std::count(link_.opcodes.begin(), link_.opcodes.end(), CMD_KVOX_TAP_LIST_ID), 256);
}

TEST_F(TapCommands, ACoreIsMissingForAsLongAsItRefuses) {
  const auto health = [this] { return Call(&KvoxService::Debug, Lines{kHealthWord}).lines; };
  const std::string missing = std::string(kHealthNoCore) + "3";
  link_.failures[CMD_KVOX_TAP_LIST_ID] = -22;
  Call(&KvoxService::TapList, 3);
  EXPECT_THAT(health(), ::testing::Contains(missing));
  link_.failures.clear();
  Call(&KvoxService::TapList, 3);
  EXPECT_THAT(health(), ::testing::Not(::testing::Contains(missing)));
  link_.failures[CMD_KVOX_TAP_LIST_ID] = -1;
  Call(&KvoxService::TapList, 3);
  EXPECT_THAT(health(), ::testing::Not(::testing::Contains(missing))) << "it is mute";
  link_.failures[CMD_KVOX_TAP_LIST_ID] = -22;
  for (int core = 0; core < 300; ++core) Call(&KvoxService::TapList, core);
  EXPECT_EQ(std::ranges::count_if(
                health(), [](const std::string& line) { return line.starts_with(kHealthNoCore); }),
            256)
      << "a client may name any number";
}

TEST_F(TapCommands, RequestsTravelAsWritten) {
  Call(&KvoxService::TapEnable, 2, Code("imic"), 1, true);
  Call(&KvoxService::TapSetBlockLength, 258, Code("imic"), 0, 960);
  Call(&KvoxService::tapSetJitterBuffer, 2, Code("imic"), 0, 70000);
  Call(&KvoxService::ConnectTap, 4, Code("vpdl"), 0, 0, -1);
  using Bytes = std::vector<uint8_t>;
  ASSERT_EQ(link_.sent.size(), 5u);
  EXPECT_EQ(link_.sent[0], (Bytes{'c', 'i', 'm', 'i', 1, 2, 1, 0}));
  EXPECT_EQ(link_.sent[1], (Bytes{'c', 'i', 'm', 'i', 0, 2, 0, 0, 0xC0, 3, 0, 0}));
  EXPECT_EQ(link_.sent[2], (Bytes{'c', 'i', 'm', 'i', 0, 2, 0, 0, 0x70, 0x11, 1, 0}));
  EXPECT_EQ(link_.sent[3], (Bytes{'l', 'd', 'p', 'v', 0, 4, 0, 0, 0, 0xFF}));
}

TEST_F(TapCommands, BuffersFromNumber128OnAreBoundAndRestored) {
  MakeNodes({"tapout200", "inject200"});
  Restart();
  EXPECT_EQ(StatusOf(Call(&KvoxService::ConnectTap, 2, Code("imic"), 0, 200, 200)), 0);
  EXPECT_EQ(link_.sent[0][8], 200);
  RemoveNodes({"inject200"});
  Restart({[&] {
    EXPECT_TRUE(link_.opcodes.empty()) << "it is missed like any other";
    MakeNodes({"inject200"});
  }});
  ASSERT_THAT(link_.opcodes,
              ElementsAre(CMD_KVOX_TAP_BIND_ID, CMD_TAP_INFO_ID, CMD_KVOX_TAP_ENABLE_ID));
  EXPECT_EQ(link_.sent[0][8], 200);
  EXPECT_EQ(link_.sent[0][9], 200);
}

TEST_F(TapCommands, FailuresNameTheOpcode) {
  for (const int opcode : {0xCA, 0xCB, 0xCD, 0xCE, 0xCF}) {
    link_.failures[static_cast<uint16_t>(opcode)] = -22;
  }
  EXPECT_THAT(Call(&KvoxService::TapEnable, 2, Code("imic"), 0, false).lines,
              ElementsAre("Disable tap point info [core 2 tap imic.0]",
                          "CMD_KVOX_TAP_ENABLE_ID failed, status -22", "TapEnable: ERROR"));
  EXPECT_THAT(
      Call(&KvoxService::TapSetBlockLength, 2, Code("imic"), 0, -1).lines,
      ElementsAre("Set tap point [core 2 tap imic.0] block length to 4294967295",
                  "CMD_KVOX_TAP_SET_BLOCK_LEN_ID failed, status -22", "TapSetBlockLength: ERROR"));
  EXPECT_EQ(Call(&KvoxService::tapSetJitterBuffer, 2, Code("imic"), 0, 5).lines[1],
            "CMD_KVOX_TAP_SET_JITTER_BUFFER_ID failed, status -22");
  EXPECT_THAT(Call(&KvoxService::TapInfo, 2, Code("imic"), 0).lines,
              ElementsAre("Get tap point info [core 2 tap imic.0]", "TapInfo: ERROR"));
  EXPECT_EQ(Call(&KvoxService::ConnectTap, 2, Code("imic"), 0, 0, 0).lines[1],
            "CMD_KVOX_TAP_BIND_ID failed, status -22");
}

TEST_F(TapCommands, RequestsAreLoggedWhileAnotherOneIsUnderWay) {
  std::vector<std::thread> clients;
  link_.on_send = [&] {
    clients.emplace_back([&] { Call(&KvoxService::TapEnable, 2, Code("imic"), 0, true); });
    clients.emplace_back([&] { Call(&KvoxService::TapSetBlockLength, 2, Code("imic"), 0, 960); });
    clients.emplace_back([&] { Call(&KvoxService::tapSetJitterBuffer, 2, Code("imic"), 0, 9); });
    clients.emplace_back([&] { Call(&KvoxService::ConnectTap, 2, Code("imic"), 0, 0, -1); });
    EXPECT_TRUE(log_.WaitFor("I Enable tap point info [core 2 tap imic.0]"));
    EXPECT_TRUE(log_.WaitFor("I Set tap point [core 2 tap imic.0] block length to 960"));
    EXPECT_TRUE(log_.WaitFor("I Set tap point [core 2 tap imic.0] jitter buffer to 9"));
    EXPECT_TRUE(log_.WaitFor("I Connect [core 2 tap imic.0] --> tap-out buffer 0"));
  };
  Call(&KvoxService::TapInfo, 2, Code("imic"), 0);
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(link_.opcodes.size(), 6u);
}

TEST(TapKey, OrdersByTapThenIndexThenCoreAndPutsHighIndicesLast) {
  const std::vector<TapKey> ordered = {{9, MakeFourCc("aaaa"), 0},   {1, MakeFourCc("aaaa"), 1},
                                       {2, MakeFourCc("aaaa"), 1},   {0, MakeFourCc("bbbb"), 0},
                                       {0, MakeFourCc("aaaa"), 128}, {0, MakeFourCc("aaaa"), 129}};
  EXPECT_TRUE(std::is_sorted(ordered.begin(), ordered.end()));
  EXPECT_EQ(TapKey(3, MakeFourCc("aaaa"), 200), TapKey(3, MakeFourCc("bbbb"), 200));
}

TEST_F(TapCommands, BufferListsHaveTheirOwnColumns) {
  Call(&KvoxService::NewProcessor, Code("pass"));
  Call(&KvoxService::Connect, Code("pass"), 0, -1);
  EXPECT_THAT(Call(&KvoxService::ListTapOutBuffers).lines,
              ElementsAre("Tap-out buffers:",
                          "  Id        Name      InProc    OutProc   Enabled"
                          "\n  0         tapout0   -         pass      0        "));
  EXPECT_THAT(Call(&KvoxService::ListInjectBuffers).lines,
              ElementsAre("Inject buffers:",
                          "  Id        Name      InProc    OutProc   Enabled  "
                          "\n  0         inject0   -         -         0        "));
}

}  // namespace
}  // namespace kvox
