#include "daemon/reply_stream.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

#include "daemon/device_events.h"
#include "daemon/device_watch.h"
#include "kvox/common/control_records.h"
#include "tests/support/bytes.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/temp_directory.h"

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

constexpr int kWatch = 1;

/// As the kernel lays it out: the name is padded with NUL bytes.
Bytes InotifyBytes(uint32_t mask, const std::string& name) {
  inotify_event event{};
  event.wd = kWatch;
  event.mask = mask;
  event.len = name.empty() ? 0 : 32;
  Bytes bytes(sizeof event + event.len);
  std::memcpy(bytes.data(), &event, sizeof event);
  std::memcpy(bytes.data() + sizeof event, name.data(), name.size());
  return bytes;
}

TEST(DeviceEvents, EveryCompleteEventCountsAndAnOverflowIsEverything) {
  const Bytes bytes = InotifyBytes(IN_CREATE, "a") + InotifyBytes(IN_DELETE, "xdv-kvox_tapout0") +
                      InotifyBytes(IN_Q_OVERFLOW, "") + InotifyBytes(IN_CREATE, "xdv-kvox_control");
  const auto describe = [](std::span<const std::byte> read) {
    std::string text;
    for (const DeviceEvent& event : ReadDeviceEvents(read, kWatch)) {
      text += std::to_string(static_cast<int>(event.kind)) + event.name + " ";
    }
    return text;
  };
  EXPECT_EQ(describe(bytes),
            "0a 1xdv-kvox_tapout0 2xdv-kvox_control 0xdv-kvox_control 0xdv-kvox_control ");
  EXPECT_EQ(describe(std::span(bytes).first(bytes.size() - 1)),
            "0a 1xdv-kvox_tapout0 2xdv-kvox_control 0xdv-kvox_control ");
  EXPECT_EQ(describe(std::span(bytes).first(3)), "");
  const Bytes gone = InotifyBytes(IN_ATTRIB, "xdv-kvox_control") + InotifyBytes(IN_ATTRIB, "") +
                     InotifyBytes(IN_DELETE_SELF, "") + InotifyBytes(IN_IGNORED, "");
  EXPECT_EQ(describe(gone), "4xdv-kvox_control 3xdv-kvox_control ");
  EXPECT_TRUE(ReadDeviceEvents(gone, kWatch + 1).empty()) << "of a watch that is no more";
}

TEST(DeviceWatch, FindsWhatCameBeforeItsDirectoryWasWatchedAgain) {
  LogCapture log;
  const TempDirectory parent;
  const std::string directory = parent / "dev";
  std::filesystem::create_directory(directory);
  const std::unique_ptr<event_base, decltype(&event_base_free)> base(event_base_new(),
                                                                     event_base_free);
  std::vector<std::string> events;
  const auto dispatch_until = [&](const std::string& wanted) {
    return WaitFor([&] {
      event_base_loop(base.get(), EVLOOP_NONBLOCK);
      return !events.empty() && events.back() == wanted;
    });
  };
  const DeviceWatch watch(base.get(), directory, [&](const DeviceEvent& event) {
    events.push_back(std::to_string(static_cast<int>(event.kind)) + event.name);
  });
  for (int times = 1; times <= 2; ++times) {
    std::ofstream(directory + "/xdv-kvox_tapout0") << "";
    EXPECT_TRUE(dispatch_until("0xdv-kvox_tapout0"));
    std::filesystem::rename(directory, parent / ("moved" + std::to_string(times)));
    EXPECT_TRUE(dispatch_until("3xdv-kvox_control"));
    events.clear();
    std::filesystem::create_directory(directory);
    std::ofstream(directory + "/xdv-kvox_inject0") << "";
    EXPECT_TRUE(dispatch_until("0xdv-kvox_inject0"));
  }
  EXPECT_EQ(log.Count("is gone. It is looked for once a second"), 2u);
}

}  // namespace
}  // namespace kvox
