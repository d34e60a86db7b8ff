// The file: made, kept, found full, damaged, read while it is written.
#include "kvox/flight/flight_log.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <thread>

#include "kvox/common/kvox_utils.h"
#include "kvox/flight/reader.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_directory.h"

namespace kvox::flight {
namespace {

using testing::HasSubstr;

class FlightLogTest : public ::testing::Test {
 protected:
  std::string Path() const { return directory_ / kFileName; }
  std::string Move(FlightLog& log) { return log.MoveToFile(directory_.path(), "kvoxd 1.2.3"); }
  std::optional<FlightView> Read(const std::string& path) {
    error_.clear();
    return ReadFlight(path, {}, &error_);
  }
  /// Changes bytes of the file.
  void Overwrite(size_t offset, const std::string& bytes) {
    std::fstream file(Path(), std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(offset));
    file << bytes;
  }

  TempDirectory directory_;
  LogCapture lines_;
  std::string error_;
};

PacketRecord Packet(uint32_t number) {
  PacketRecord packet = {};
  packet.number = number;
  return packet;
}

TEST_F(FlightLogTest, TellsWhatWasWrittenAlsoAfterTheWriterHasDied) {
  {
    FlightLog log;
    ASSERT_EQ(Move(log), "");
    StreamSlot* const slot = log.OpenStream("tapout20");
    StreamLog stream(slot);
    stream.Begin();
    for (uint32_t i = 0; i < kPackets + 5; ++i) stream.Add(Packet(i));
    log.OpenInject("inject20").Count(Written::kFull);
    const CallerScope caller(42);
    log.Record({.kind = EventKind::kCommand,
                .subject = "",
                .text = "Connect \x1b[2J",
                .status = -1,
                .duration_ns = 7});
    for (int i = 0; i < 3; ++i) log.Sample();
    const auto view = Read(Path());
    ASSERT_TRUE(view) << error_;
    EXPECT_TRUE(view->live);
    EXPECT_EQ(view->program, "kvoxd 1.2.3");
    ASSERT_EQ(view->streams.size(), 1u);
    const StreamView& seen = view->streams[0];
    EXPECT_TRUE(seen.on);
    EXPECT_EQ(seen.name, "tapout20");
    EXPECT_GT(seen.since_ns, view->started_ns);
    ASSERT_FALSE(seen.scheduling.empty());
    EXPECT_NEAR(static_cast<double>(view->started_ns + view->wall_offset_ns),
                static_cast<double>(WallClockNs()), 60e9);
    EXPECT_EQ(seen.dispatched, kPackets + 5);
    ASSERT_EQ(seen.packets.size(), kPackets);
    EXPECT_EQ(seen.packets.front().number, 5u);
    EXPECT_EQ(view->injects[0].name, "inject20");
    EXPECT_EQ(view->injects[0].full, 1u);
    ASSERT_EQ(view->events.size(), 1u);
    EXPECT_EQ(view->events[0].text, "Connect \\x1b[2J") << "no control characters reach a terminal";
    EXPECT_EQ(view->events[0].pid, 42u);
  }
  const auto box = Read(Path());
  ASSERT_TRUE(box);
  EXPECT_FALSE(box->live);
  std::ofstream(directory_ / "flight.new") << "left behind by a daemon that was killed";
  FlightLog next;
  ASSERT_EQ(Move(next), "");
  const auto previous = Read(directory_ / kPreviousFileName);
  ASSERT_TRUE(previous) << error_;
  EXPECT_EQ(previous->streams.size(), 1u);
  EXPECT_TRUE(Read(Path())->streams.empty());
}

TEST_F(FlightLogTest, TheGroupMayReadIt) {
  const mode_t before = umask(077);
  FlightLog log;
  EXPECT_EQ(Move(log), "");
  umask(before);
  EXPECT_EQ(std::filesystem::status(Path()).permissions(), std::filesystem::perms(0640));
}

TEST_F(FlightLogTest, AStreamThatIsOffIsShownAsThat) {
  FlightLog log;
  ASSERT_EQ(Move(log), "");
  StreamSlot* const slot = log.OpenStream("tapout20");
  StreamLog stream(slot);
  stream.Begin();
  log.Sample();
  EXPECT_TRUE(Read(Path())->events.empty());
  stream.End();
  for (int i = 0; i < 2; ++i) log.Sample();
  const auto view = Read(Path());
  EXPECT_FALSE(view->streams[0].on);
  ASSERT_EQ(view->events.size(), 1u);
  EXPECT_EQ(view->events[0].subject + " " + view->events[0].text, "tapout20 gave up");
  stream.Begin();
  EXPECT_TRUE(Read(Path())->streams[0].on);
  log.CloseStream(slot);
  EXPECT_FALSE(Read(Path())->streams[0].on);
}

TEST_F(FlightLogTest, TheFileOfALivingDaemonStays) {
  FlightLog first;
  ASSERT_EQ(Move(first), "");
  first.OpenStream("tapout1");
  FlightLog second;
  EXPECT_THAT(Move(second), HasSubstr("end the other daemon"));
  second.OpenStream("tapout2");  // in memory
  EXPECT_EQ(Read(Path())->streams[0].name, "tapout1");
}

TEST_F(FlightLogTest, WithoutAPlaceForTheFileItStaysInMemory) {
  FlightLog log;
  EXPECT_THAT(log.MoveToFile(directory_ / "missing", "kvoxd"), HasSubstr("No such file"));
  rlimit before;
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit small{.rlim_cur = 1 << 20, .rlim_max = before.rlim_max};
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &small);
  EXPECT_THAT(Move(log), HasSubstr("cannot make room for"));
  setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, handler);
  EXPECT_FALSE(std::filesystem::exists(Path()));
  StreamLog stream(log.OpenStream("tapout1"));
  stream.Add(Packet(1));
  log.Record({.kind = EventKind::kDaemon, .subject = "kvoxd"});

  FlightLog second;
  EXPECT_THAT(Move(second), HasSubstr("end the other daemon"))
      << "one that runs without a file keeps the directory";
}

TEST_F(FlightLogTest, StreamsWithoutRoomRunUnrecorded) {
  // Room for the header, the events and one stream.
  if (mount("tmpfs", directory_.path().c_str(), "tmpfs", 0, "size=1m") != 0) {
    GTEST_SKIP() << "this user may not mount a file system";
  }
  {
    FlightLog log;
    ASSERT_EQ(Move(log), "");
    EXPECT_NE(log.OpenStream("tapout1"), nullptr);
    EXPECT_EQ(log.OpenStream("tapout2"), nullptr);
    EXPECT_EQ(log.OpenStream("tapout3"), nullptr);
    EXPECT_EQ(lines_.Count("The flight log has no place for tapout2: No space left on device"), 1u);
    EXPECT_EQ(lines_.Count("The flight log has no place for"), 1u) << "said once";
    EXPECT_EQ(Read(Path())->unrecorded, 2u);
  }
  umount(directory_.path().c_str());
}

TEST_F(FlightLogTest, StreamsKeepTheirPlacesAndTheOldestClosedOneIsGivenAway) {
  FlightLog log;
  ASSERT_EQ(Move(log), "");
  std::vector<StreamSlot*> slots;
  for (size_t i = 0; i < kStreams; ++i)
    slots.push_back(log.OpenStream("tapout" + std::to_string(i)));
  EXPECT_EQ(log.OpenStream("tapout999"), nullptr);
  EXPECT_EQ(log.OpenStream("tapout998"), nullptr);
  EXPECT_EQ(lines_.Count("The flight log has no place for"), 1u) << "said once";
  EXPECT_EQ(Read(Path())->unrecorded, 2u);
  StreamLog(slots[7]).Add(Packet(1));
  log.CloseStream(slots[7]);
  EXPECT_EQ(log.OpenStream("tapout7"), slots[7]);
  EXPECT_EQ(slots[7]->dispatched.load(), 1u) << "it continues";
  log.CloseStream(slots[7]);
  log.CloseStream(slots[9]);
  EXPECT_EQ(log.OpenStream("tapout999"), slots[7]);
  EXPECT_EQ(slots[7]->dispatched.load(), 0u) << "of another stream";
  EXPECT_EQ(log.OpenStream("tapout998"), slots[9]);
}

TEST_F(FlightLogTest, ADamagedFileIsRefusedOrReadAsFarAsItIsWhole) {
  {
    FlightLog log;
    ASSERT_EQ(Move(log), "");
    StreamLog stream(log.OpenStream("tapout20"));
    for (uint32_t i = 0; i < 10; ++i) stream.Add(Packet(i));
  }
  const size_t slot = offsetof(File, streams);
  Overwrite(slot + offsetof(StreamSlot, records) + 3 * sizeof(PacketRecord) + 20, "x");
  auto view = Read(Path());
  ASSERT_TRUE(view);
  EXPECT_EQ(view->streams[0].packets.size(), 9u);
  EXPECT_EQ(view->streams[0].torn, 1u);
  Overwrite(slot + offsetof(StreamSlot, packets), std::string(8, '\xff'));  // absurd
  EXPECT_TRUE(Read(Path())->streams[0].packets.empty());
  Overwrite(slot + sizeof(StreamSlot), "tapout20");
  EXPECT_EQ(Read(Path())->streams.size(), 1u) << "names are unique";

  Overwrite(offsetof(FileHeader, version), std::string("\x09\0\0\0", 4));
  EXPECT_FALSE(Read(Path()));
  EXPECT_THAT(error_, HasSubstr("has version 9"));
  Overwrite(0, std::string(8, '\0'));
  EXPECT_FALSE(Read(Path()));
  EXPECT_THAT(error_, HasSubstr("is no flight log"));
  for (const size_t size : {sizeof(File) - 1, size_t{100}, size_t{0}}) {
    std::filesystem::resize_file(Path(), size);
    EXPECT_FALSE(Read(Path())) << size;
  }
  EXPECT_FALSE(Read(directory_ / "none"));
  directory_.MakeFifo("fifo");
  EXPECT_FALSE(Read(directory_ / "fifo"));
}

TEST_F(FlightLogTest, AReaderMayComeAtAnyTime) {
  FlightLog log;
  ASSERT_EQ(Move(log), "");
  std::atomic<bool> done = false;
  std::thread writer([&] {
    StreamSlot* const slot = log.OpenStream("tapout20");
    StreamLog stream(slot);
    stream.Begin();
    for (uint32_t i = 0; !done; ++i) {
      PacketRecord packet = Packet(i);
      packet.stamp = i * 77;
      packet.write_ns = ~i;
      stream.Add(packet);
      if (i % 64 == 0) log.Record({.kind = EventKind::kRecovery, .subject = "restored"});
    }
    log.CloseStream(slot);
  });
  size_t packets = 0;
  for (int i = 0; i < 1000 && packets < 20 * kPackets; ++i) {
    const auto view = Read(Path());
    if (!view || view->streams.empty()) continue;
    for (const PacketRecord& packet : view->streams[0].packets) {
      if (packet.stamp == packet.number * 77 && packet.write_ns == ~packet.number)
        ++packets;
      else
        ADD_FAILURE() << "a torn record passed for a whole one";
    }
    log.Sample();
  }
  done = true;
  writer.join();
  EXPECT_GE(packets, 20 * kPackets);
}

}  // namespace
}  // namespace kvox::flight
