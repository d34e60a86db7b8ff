// What becomes of a recording in a replay.
#include <gmock/gmock.h>

#include <cstring>
#include <stdexcept>

#include "kvox/common/device_names.h"
#include "kvox/common/four_cc.h"
#include "kvox/common/kvox_packet.h"
#include "sim/recording/comparison.h"
#include "sim/recording/header_keeper.h"
#include "sim/recording/pcapng.h"
#include "sim/recording/recorded_replies.h"
#include "sim/recording/script.h"

namespace kvox::sim {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using Bytes = std::vector<std::byte>;

constexpr FourCc kA = MakeFourCc("aaaa");
constexpr FourCc kB = MakeFourCc("bbbb");
constexpr FourCc kC = MakeFourCc("cccc");
constexpr uint64_t kSecond = 1'000'000'000;
constexpr uint64_t kBegin = 1'790'000'000 * kSecond;

Bytes Enable(FourCc tap, uint8_t seq = 0, int16_t status = 0) {
  TapEnableRecord record;
  record.header = {
      .seq = seq, .size = sizeof record, .opcode = CMD_KVOX_TAP_ENABLE_ID, .status = status};
  record.address = {.tap = tap, .core = 2};
  Bytes bytes(sizeof record);
  std::memcpy(bytes.data(), &record, sizeof record);
  return bytes;
}

Bytes Packet(uint32_t number, std::byte audio = {}) {
  KvoxPacketHeader header;
  header.packet_num = number;
  header.payload_size = 40;
  header.format = {.sample_rate = 8000, .channels = 1, .bytes_per_sample = 2};
  Bytes packet(kPacketHeaderSize + header.payload_size, audio);
  std::memcpy(packet.data(), &header, sizeof header);
  return packet;
}

NodeRecord Passed(const char* node, double at_s, Bytes bytes, bool to_coprocessor = false) {
  const auto length = static_cast<uint32_t>(bytes.size());
  return {.node = node,
          .time_ns = kBegin + static_cast<uint64_t>(at_s * 1e9),
          .to_coprocessor = to_coprocessor,
          .length = length,
          .bytes = std::move(bytes)};
}

NodeRecord Arrived(const char* node, double at_s = 0) {
  NodeRecord record = Passed(node, at_s, {});
  record.event = NodeEvent::kArrived;
  return record;
}

Bytes FileOf(const std::vector<NodeRecord>& records) {
  PcapngWriter writer;
  Bytes file = PcapngWriter::Begin();
  for (const NodeRecord& record : records) {
    const Bytes block = writer.Add(record);
    file.insert(file.end(), block.begin(), block.end());
  }
  return file;
}

/// Two commands of which the first is sent again, with one reply that refuses and one that is cut.
const std::vector<NodeRecord> kConversation = {
    Arrived(kControlDevice),
    Arrived("xdv-kvox_tapout0"),
    Passed(kControlDevice, 1, Enable(kA, 1), true),
    Passed(kControlDevice, 1.1, Enable(kA, 1, -2)),
    Passed(kControlDevice, 2, Enable(kB, 2), true),
    Passed(kControlDevice, 2.1, {std::byte{9}}),
    Passed("xdv-kvox_tapout0", 2.5, Packet(1)),
    Passed("xdv-kvox_inject0", 2.6, Packet(1), true),
    Passed(kControlDevice, 3, Enable(kA, 3), true),
    Passed(kControlDevice, 3.1, Enable(kA, 3)),
};

TEST(ScriptTest, TellsWhatHappenedWhen) {
  const Script script = ReadScript(FileOf(kConversation));
  EXPECT_THAT(script.problems, IsEmpty());
  ASSERT_THAT(script.steps, SizeIs(6));
  EXPECT_EQ(script.steps[4].kind, Step::Kind::kDeliver);
  EXPECT_EQ(script.steps[4].at_ns, kSecond * 5 / 2);
  ASSERT_THAT(script.exchanges, SizeIs(3));
  EXPECT_EQ(script.exchanges[0].replies[0].bytes, Enable(kA, 1, -2));
  EXPECT_EQ(script.exchanges[0].replies[0].after_ns, kSecond / 10);
  EXPECT_EQ(script.exchanges[1].replies[0].bytes, Bytes{std::byte{9}});

  const Script later = ReadScript(FileOf(kConversation), 2 * kSecond);
  EXPECT_EQ(later.steps[0].at_ns, 0u);
  EXPECT_EQ(later.steps.back().at_ns, kSecond);
  EXPECT_TRUE(later.exchanges[0].is_before);
  EXPECT_FALSE(later.exchanges[1].is_before);
}

TEST(ScriptTest, NamesDamageAndGoesOnWithoutIt) {
  Bytes tail = FileOf(kConversation);
  tail.resize(tail.size() + 64);
  const Script early = ReadScript(tail);
  EXPECT_THAT(early.problems, ElementsAre(HasSubstr("a block of 0 bytes")));
  EXPECT_THAT(early.steps, SizeIs(6));

  const Script jumping =
      ReadScript(FileOf({Arrived("kvo", 5), Arrived("xdv-kvox_tapout1", 0),
                         Arrived("xdv-kvox_tapout2", 1e6), Arrived("xdv-kvox_tapout2", 1e6 + 1)}));
  EXPECT_THAT(jumping.problems, ElementsAre(HasSubstr("2 times")));
  EXPECT_EQ(jumping.steps.back().at_ns, kSecond);

  NodeRecord huge = Passed("xdv-kvox_tapout0", 3, {});
  huge.length = UINT32_MAX - 8;
  EXPECT_THAT(ReadScript(FileOf({Arrived("kvo"), huge})).problems,
              ElementsAre(HasSubstr("too long")));
  // Names that are none of a node would be paths.
  EXPECT_THAT(ReadScript(FileOf({Arrived("xdv-kvox_tapout/../../x"), Arrived("/etc/passwd"),
                                 Arrived("eth0")}))
                  .steps,
              IsEmpty());
  EXPECT_THROW(ReadScript(Bytes(100)), std::runtime_error);
}

TEST(RecordedRepliesTest, AreFoundByContentAndOrder) {
  const Script script = ReadScript(FileOf(kConversation));
  RecordedReplies replies(script);
  const auto take = [&](FourCc tap) { return replies.Take(Enable(tap, 77)); };
  EXPECT_EQ(take(kA).replies[0].bytes, Enable(kA, 77, -2));
  replies.GiveUp(1);
  EXPECT_EQ(take(kA).exchange, 2u);
  EXPECT_EQ(take(kB).exchange, 1u);  // late
  EXPECT_FALSE(take(kA).exchange);
  EXPECT_EQ(replies.modelled(), 1u);
}

TEST(ComparisonTest, NamesWhatDiffers) {
  const Script script = ReadScript(FileOf(kConversation));
  Sent sent;
  for (const Exchange& exchange : script.exchanges) sent.commands.push_back(exchange.command);
  sent.injected["xdv-kvox_inject0"] = {{Packet(1), 104}};
  EXPECT_THAT(Compare(script, sent), IsEmpty());
  sent.commands.erase(sent.commands.begin() + 1);
  sent.commands.push_back(Enable(kC));
  sent.injected["xdv-kvox_inject0"] = {{Packet(1, std::byte{1}), 104}};
  EXPECT_THAT(Compare(script, sent),
              ElementsAre("- command 2: CMD_KVOX_TAP_ENABLE_ID 2:bbbb.0 00 00",
                          "+ command 3: CMD_KVOX_TAP_ENABLE_ID 2:cccc.0 00 00",
                          HasSubstr("- xdv-kvox_inject0 packet 1: packet 1"),
                          HasSubstr("+ xdv-kvox_inject0 packet 1: packet 1")));
}

TEST(HeaderKeeperTest, KeepsHeadersHoweverTheBytesAreCut) {
  Bytes stream(6, std::byte{'x'});  // no packet
  for (int i = 0; i < 3; ++i) {
    const Bytes packet = Packet(7, std::byte{7});
    stream.insert(stream.end(), packet.begin(), packet.end());
  }
  const Bytes header(stream.begin() + 6, stream.begin() + 6 + kPacketHeaderSize);
  for (const size_t step : {1u, 7u, 30u, 64u, 104u, 1000u}) {
    SCOPED_TRACE(step);
    HeaderKeeper keeper;
    size_t length = 0;
    size_t packets = 0;
    for (size_t at = 0; at < stream.size(); at += step) {
      const auto bytes = std::span(stream).subspan(at, std::min(step, stream.size() - at));
      for (const HeaderKeeper::Part& part : keeper.Take(bytes)) {
        EXPECT_TRUE(part.kept.empty() || part.kept == header);
        EXPECT_GE(part.length, part.kept.size());
        if (!part.kept.empty()) {
          EXPECT_EQ(length % Packet(0).size(), 6u);
          ++packets;
        }
        length += part.length;
      }
    }
    EXPECT_EQ(length, stream.size());
    EXPECT_EQ(packets, 3u);
  }
}

}  // namespace
}  // namespace kvox::sim
