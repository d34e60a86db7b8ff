#include "sim/recording/pcapng.h"

#include <gmock/gmock.h>

#include <stdexcept>

namespace kvox::sim {
namespace {

using testing::HasSubstr;
using Bytes = std::vector<std::byte>;

Bytes BytesOf(std::string_view text) {
  const auto bytes = std::as_bytes(std::span(text));
  return {bytes.begin(), bytes.end()};
}

Bytes Join(const std::vector<NodeRecord>& records) {
  PcapngWriter writer;
  Bytes file = PcapngWriter::Begin();
  for (const NodeRecord& record : records) {
    const Bytes block = writer.Add(record);
    file.insert(file.end(), block.begin(), block.end());
  }
  return file;
}

/// What is wrong with a file; "" for nothing.
std::string Problem(const Bytes& file, size_t* count = nullptr) {
  PcapngReader reader(file);
  NodeRecord record;
  try {
    for (size_t found = 0; reader.Next(record); ++found) {
      if (count != nullptr) *count = found + 1;
    }
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "";
}

const std::vector<NodeRecord> kRecords = {
    {.node = "xdv-kvox_control",
     .time_ns = 1'790'000'000'123'456'789,
     .event = NodeEvent::kArrived},
    {.node = "xdv-kvox_tapout3",
     .time_ns = 1'790'000'000'123'456'790,
     .length = 5,
     .bytes = BytesOf("abcde")},
    {.node = "xdv-kvox_control",
     .time_ns = 1'790'000'001'000'000'000,
     .to_coprocessor = true,
     .length = 4,
     .bytes = BytesOf("abcd")},
    {.node = "xdv-kvox_tapout3", .time_ns = 1'790'000'001'000'000'001, .length = 2000},
    {.node = "xdv-kvox_inject0",
     .time_ns = 1'790'000'001'000'000'002,
     .event = NodeEvent::kError,
     .number = 6},
};

TEST(PcapngTest, ReadsWhatItHasWritten) {
  const Bytes file = Join(kRecords);
  PcapngReader reader(file);
  for (const NodeRecord& expected : kRecords) {
    NodeRecord found;
    ASSERT_TRUE(reader.Next(found));
    EXPECT_EQ(found.node, expected.node);
    EXPECT_EQ(found.time_ns, expected.time_ns);
    EXPECT_EQ(found.event, expected.event);
    EXPECT_EQ(found.to_coprocessor, expected.to_coprocessor);
    EXPECT_EQ(found.number, expected.number);
    EXPECT_EQ(found.length, expected.length);
    EXPECT_EQ(found.bytes, expected.bytes);
  }
  NodeRecord none;
  EXPECT_FALSE(reader.Next(none));
  EXPECT_FALSE(reader.cut());
}

TEST(PcapngTest, AFileThatIsCutEndsEarlier) {
  const Bytes file = Join(kRecords);
  size_t before = 0;
  for (size_t size = 28; size < file.size(); ++size) {
    size_t count = 0;
    EXPECT_EQ(Problem(Bytes(file.begin(), file.begin() + static_cast<ptrdiff_t>(size)), &count),
              "");
    EXPECT_GE(count, before) << size;
    before = count;
  }
  EXPECT_EQ(before, kRecords.size() - 1);
}

TEST(PcapngTest, NamesWhatIsWrong) {
  EXPECT_THAT(Problem(BytesOf("RIFF....WAVEfmt ")), HasSubstr("no pcapng"));
  const Bytes file = Join(kRecords);
  const auto changed = [&](size_t at, uint8_t value) {
    Bytes bytes = file;
    bytes[at] = std::byte{value};
    return Problem(bytes);
  };
  EXPECT_THAT(changed(8, 0x1A), HasSubstr("byte order"));
  EXPECT_THAT(changed(12, 9), HasSubstr("version is 9"));
  EXPECT_THAT(changed(4, 3), HasSubstr("no block"));
  EXPECT_THAT(changed(file.size() - 1, 1), HasSubstr("lengths differ"));
  EXPECT_THAT(Problem({}), "");
}

/// Whatever the bytes are, it ends, and reads nothing that is not there.
TEST(PcapngTest, SurvivesJunk) {
  const Bytes file = Join(kRecords);
  for (size_t at = 28; at < file.size(); ++at) {
    for (const int value : {0, 1, 4, 0x7F, 0xFF}) {
      Bytes bytes = file;
      bytes[at] = static_cast<std::byte>(value);
      Problem(bytes);
    }
  }
}

}  // namespace
}  // namespace kvox::sim
