#include "daemon/reply_stream.h"

#include <gtest/gtest.h>

#include "daemon/device_events.h"
#include "kvox/common/control_records.h"
#include "tests/support/bytes.h"

namespace kvox {
namespace {

Bytes Record(uint16_t size, size_t length) {
  CMD_HDR header{.size = size, .opcode = 0xCA};
  Bytes bytes(length);
  std::memcpy(bytes.data(), &header, std::min(sizeof header, length));
  return bytes;
}

std::vector<size_t> Sizes(const std::vector<Bytes>& records) {
  std::vector<size_t> sizes;
  for (const Bytes& record : records) sizes.push_back(record.size());
  return sizes;
}

TEST(ReplyStream, SplitsByTheSizeField) {
  const Bytes three = Record(16, 16) + Record(44, 44) + Record(8, 8);
  ReplyStream stream;
  EXPECT_EQ(Sizes(stream.Append(three)), (std::vector<size_t>{16, 44, 8}));
  EXPECT_FALSE(stream.partial());
  std::vector<size_t> sizes;
  for (const std::byte byte : three) {
    for (const size_t size : Sizes(stream.Append({&byte, 1}))) sizes.push_back(size);
  }
  EXPECT_EQ(sizes, (std::vector<size_t>{16, 44, 8}));
}

TEST(ReplyStream, SizesThatMakeNoSenseTakeEverythingWithThem) {
  ReplyStream stream;
  EXPECT_EQ(Sizes(stream.Append(Record(7, 30))), (std::vector<size_t>{30}));
  EXPECT_EQ(Sizes(stream.Append(Record(0xFFFF, 12))), (std::vector<size_t>{12}));
  EXPECT_TRUE(stream.Append(Record(16, 10)).empty());
  EXPECT_TRUE(stream.partial());
  EXPECT_EQ(stream.DropPartial(), 10u);
  EXPECT_EQ(Sizes(stream.Append(Record(16, 16))), (std::vector<size_t>{16}));
}

TEST(SplitInotifyEvents, TakesEveryCompleteEvent) {
  Bytes bytes;
  for (const char* name : {"a", "xdv-kvox_contro", "xdv-kvox_control"}) {
    const InotifyEventBytes event(IN_CREATE, name);
    bytes.insert(bytes.end(), event.bytes().begin(), event.bytes().end());
  }
  const auto events = SplitInotifyEvents(bytes);
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(SplitInotifyEvents(std::span(bytes).first(bytes.size() - 1)).size(), 2u);
  EXPECT_TRUE(SplitInotifyEvents(std::span(bytes).first(3)).empty());
  EXPECT_FALSE(IsAbout(*events[1], "xdv-kvox_control"));
  EXPECT_TRUE(IsAbout(*events[2], "xdv-kvox_control"));
  EXPECT_FALSE(IsAbout(inotify_event{}, "xdv-kvox_control"));
}

}  // namespace
}  // namespace kvox
