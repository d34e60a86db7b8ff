#include "sim/coprocessor/command_handler.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim/devices/record_splitter.h"
#include "tests/support/bytes.h"

namespace kvox::sim {
namespace {

constexpr char kScenario[] = R"(
cores = [2, 3, 9]
tapouts = [0, 20]
injects = [20]
tap = [
  { name = "imic", core = 2, channels = 2 },
  { name = "aux", index = 0, core = 2 },
  { name = "aux", index = 1, core = 2 },
  { name = "aux", index = 2, core = 2 },
  { name = "aux", index = 3, core = 2, format = "float", rate = 16000 },
  { name = "aux", index = 0, core = 3 },
]
)";

constexpr TapAddress kMic{.tap = MakeFourCc("imic"), .index = 0, .core = 2};
constexpr TapAddress kAux3{.tap = 0x61757800, .index = 3, .core = 2};

template <typename Record>
CMD_HDR Header(ControlOpcode opcode) {
  return {.seq = 77, .size = sizeof(Record), .opcode = opcode};
}

TapEnableRecord EnableCommand(const TapAddress& address, uint8_t enable) {
  return {Header<TapEnableRecord>(CMD_KVOX_TAP_ENABLE_ID), address, enable};
}

TapBindRecord BindCommand(const TapAddress& address, uint8_t tapout, uint8_t inject) {
  return {Header<TapBindRecord>(CMD_KVOX_TAP_BIND_ID), address, {}, tapout, inject};
}

TapSettingRecord SettingCommand(ControlOpcode opcode, const TapAddress& address, uint32_t value) {
  return {Header<TapSettingRecord>(opcode), address, {}, value};
}

TapListRecord ListCommand(uint8_t core, uint8_t page) {
  return {Header<TapListRecord>(CMD_KVOX_TAP_LIST_ID), core, page, {}, {}};
}

class CommandHandlerTest : public ::testing::Test {
 protected:
  template <typename Record>
  Record ReplyTo(Record record) {
    handler_.Handle(std::as_writable_bytes(std::span(&record, 1)));
    return record;
  }
  template <typename Record>
  int StatusOf(Record record) {
    const Record reply = ReplyTo(record);
    EXPECT_EQ(reply.header.opcode, record.header.opcode);
    EXPECT_EQ(reply.header.size, record.header.size);
    EXPECT_EQ(reply.header.seq, 77);
    return reply.header.status;
  }

  Journal journal_;
  CoProcessor co_processor_{ParseScenario(kScenario, "s.toml", "")};
  CommandHandler handler_{co_processor_, journal_};
};

TEST_F(CommandHandlerTest, RefusalsHaveTheirStatusAndChangeNothing) {
  const TapAddress no_tap{.tap = kMic.tap, .index = 0, .core = 3};
  const TapAddress no_core{.tap = kMic.tap, .index = 0, .core = 4};
  auto unknown = EnableCommand(kMic, 1);
  unknown.header.opcode = 0xD0;
  auto wrong_size = EnableCommand(kMic, 1);
  wrong_size.header.opcode = CMD_KVOX_TAP_BIND_ID;
  EXPECT_EQ(StatusOf(EnableCommand(no_tap, 1)), -2);
  EXPECT_EQ(StatusOf(EnableCommand(no_core, 1)), -6);
  EXPECT_EQ(StatusOf(ListCommand(4, 0)), -6);
  EXPECT_EQ(StatusOf(BindCommand(kMic, 21, 20)), -19);
  EXPECT_EQ(StatusOf(BindCommand(kMic, 20, 0)), -19);
  EXPECT_EQ(StatusOf(EnableCommand(kMic, 2)), -22);
  EXPECT_EQ(StatusOf(SettingCommand(CMD_KVOX_TAP_SET_BLOCK_LEN_ID, kMic, 0xFFFFFFFE)), -22);
  EXPECT_EQ(StatusOf(unknown), -38);
  EXPECT_EQ(StatusOf(wrong_size), -90);

  const Tap& mic = *co_processor_.Find(kMic);
  EXPECT_FALSE(mic.enabled);
  EXPECT_EQ(mic.tapout, kNoBuffer);
  EXPECT_EQ(mic.block_length, 480u);
  EXPECT_EQ(handler_.counts().at({CMD_KVOX_TAP_BIND_ID, -19}), 2u);
}

TEST_F(CommandHandlerTest, OfSeveralTapsOnOneDeviceTheLastEnabledHasIt) {
  ReplyTo(BindCommand(kMic, 20, 20));
  EXPECT_EQ(co_processor_.StreamingInto(20), nullptr);
  EXPECT_EQ(co_processor_.ReceivingFrom(20), co_processor_.Find(kMic));
  ReplyTo(EnableCommand(kMic, 1));
  ReplyTo(BindCommand(kAux3, 20, 20));
  EXPECT_EQ(co_processor_.StreamingInto(20), co_processor_.Find(kMic));
  EXPECT_EQ(co_processor_.ReceivingFrom(20), co_processor_.Find(kMic));
  ReplyTo(EnableCommand(kAux3, 1));
  EXPECT_EQ(co_processor_.StreamingInto(20), co_processor_.Find(kAux3));
  ReplyTo(EnableCommand(kAux3, 0));
  EXPECT_EQ(co_processor_.StreamingInto(20), co_processor_.Find(kMic));
}

template <typename Record>
Bytes ToBytes(const Record& record) {
  const auto bytes = std::as_bytes(std::span(&record, 1));
  return Bytes(bytes.begin(), bytes.end());
}

TEST(RecordSplitter, FindsRecordsHoweverTheyArrive) {
  const Bytes enable = ToBytes(EnableCommand(kMic, 1));
  const Bytes list = ToBytes(ListCommand(2, 0));
  const Bytes junk(13, std::byte{'x'});
  const Bytes stream = junk + enable + list + junk + enable;
  for (const size_t piece : {size_t{1}, size_t{7}, size_t{16}, stream.size()}) {
    std::vector<Bytes> records;
    RecordSplitter splitter(
        [&](auto record) { records.emplace_back(record.begin(), record.end()); });
    FeedInPieces(splitter, stream, piece);
    EXPECT_EQ(records, (std::vector<Bytes>{enable, list, enable})) << "in pieces of " << piece;
    EXPECT_EQ(splitter.junk_bytes(), 26u);
    EXPECT_FALSE(splitter.partial());
  }
}

TEST(RecordSplitter, WhatNeverBecomesARecordHidesNoneBehindIt) {
  const Bytes enable = ToBytes(EnableCommand(kMic, 1));
  Bytes likely(8);  // a header that promises 200 bytes
  likely[2] = std::byte{200};
  std::vector<Bytes> records;
  RecordSplitter splitter([&](auto record) { records.emplace_back(record.begin(), record.end()); });
  splitter.Feed(likely + enable);
  EXPECT_TRUE(records.empty());
  ASSERT_TRUE(splitter.partial());
  splitter.GiveUpPartial();
  EXPECT_EQ(records, (std::vector<Bytes>{enable}));
  EXPECT_EQ(splitter.junk_bytes(), 8u);
  splitter.Feed(Bytes(3));
  splitter.GiveUpPartial();
  EXPECT_EQ(splitter.junk_bytes(), 11u);
  EXPECT_FALSE(splitter.partial());
}

}  // namespace
}  // namespace kvox::sim
