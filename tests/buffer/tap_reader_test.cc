#include "buffer/tap_reader.h"

#include <gtest/gtest.h>

#include "processors/passthru_processor.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_device.h"

namespace kvox {
namespace {

constexpr KvoxTapFormat kFormat = {.sample_rate = 48000, .channels = 2, .bytes_per_sample = 2};
constexpr uint32_t kTenMs = 1920;

class SpyRecorder : public PacketRecorder {
 public:
  void Record(const KvoxPacketHeader& header, std::span<const std::byte>) override {
    numbers.push_back(header.packet_num);
  }
  bool recording() const override { return !numbers.empty(); }
  uint32_t samples() const override { return 77; }
  std::vector<uint32_t> numbers;
};

/// Fails every block, and writes half of its output first.
class FailingProcessor : public KvoxProcessor {
 public:
  using KvoxProcessor::KvoxProcessor;
  BlockResult ProcessBlock(const Block&, OutputArea* out) override {
    if (out != nullptr) std::memset(out->Data(), 0x55, out->size() / 2);
    return {.status = -1};
  }
};

/// Plays a scripted device to the reader on the test's own thread, until the script ends.
class TapReaderTest : public ::testing::Test {
 protected:
  /// To one inject device for each descriptor.
  void RouteTo(std::shared_ptr<KvoxProcessor> processor,
               const std::vector<int>& fds = {ScriptedDevice::kInjectFd}) {
    auto table = std::make_unique<RouteTable>();
    for (const int fd : fds) {
      port_ = std::make_shared<InjectPort>("inject0", "/inject0", device_, inject_recorder_, fd);
      table->routes.push_back({.processor = processor, .connected = true, .port = port_});
    }
    routes_.Publish(std::move(table));
    routes_.WaitForGracePeriod();
  }

  void RouteToPassthrough(const std::vector<int>& fds = {ScriptedDevice::kInjectFd}) {
    auto processor = std::make_shared<PassthruProcessor>(MakeFourCc("pass"), MakeFourCc("pass"));
    processor->Enable(true);
    RouteTo(processor, fds);
  }

  /// Plays the script to its end. The lines are counted in log_.
  void Run() { reader_->Run(); }

  const std::string name_ = "tapout0";
  const std::string path_ = "/tapout0";
  ScriptedDevice device_;
  LogCapture log_;
  WakeEvent wake_;
  RoutePublisher routes_{[] {}};
  RxFormatCell rx_format_;
  std::atomic<bool> gave_up_ = false;
  SpyRecorder recorder_;
  SpyRecorder inject_recorder_;
  std::shared_ptr<InjectPort> port_;
  std::unique_ptr<TapReader> reader_ =
      std::make_unique<TapReader>(TapReaderLinks{.name = name_,
                                                 .device_path = path_,
                                                 .io = device_,
                                                 .routes = routes_,
                                                 .rx_format = rx_format_,
                                                 .recorder = recorder_,
                                                 .log = log_,
                                                 .wake = wake_,
                                                 .gave_up = gave_up_},
                                  ScriptedDevice::kTapoutFd);
};

TEST_F(TapReaderTest, TellsWhatTheFirstPacketBrings) {
  device_.Deliver(MakePacket(1, kTenMs, kFormat));
  device_.Deliver(MakePacket(3, 960, kFormat), 5);
  Run();
  EXPECT_EQ(log_.Take(),
            (std::vector<std::string>{
                "I tapout0 RX resync",
                "I tapout0: RX process payload sz change 0 --> 1920",
                "I tapout0: RX format change 0kHz 0ch 0Bps, block len 0, noninterleaved 0 "
                "--> 48kHz 2ch 2Bps, block len 480, noninterleaved 0",
                "I tapout0 ioProcess RX packet_num jump 1 -> 3",
                "I tapout0: RX process payload sz change 1920 --> 960",
                "I tapout0: RX format change 48kHz 2ch 2Bps, block len 480, "
                "noninterleaved 0 --> 48kHz 2ch 2Bps, block len 240, noninterleaved 0",
                "E tapout0 select failed\n",
                "I tapout0 ioProcess end",
            }));
}

TEST_F(TapReaderTest, StalledInjectsCostTheOthersNothing) {
  constexpr int kHealthy = 203;
  constexpr std::chrono::nanoseconds kQuarter{2'500'000};
  RouteToPassthrough({201, 202, kHealthy});
  device_.stalled = {201, 202};
  for (uint32_t number = 1; number <= 4; ++number) {
    device_.Deliver(MakePacket(number, kTenMs, kFormat), 10);
  }
  device_.Do([&] { device_.stalled = {202}; });
  device_.Deliver(MakePacket(5, kTenMs, kFormat), 10);
  device_.Do([&] { device_.stalled = {201, 202}; });
  device_.Deliver(MakePacket(6, kTenMs, kFormat), 10);
  Run();
  EXPECT_EQ(std::ranges::count(device_.written_to, kHealthy), 6);
  EXPECT_EQ(std::ranges::count(device_.written_to, 201), 1) << "once it takes packets again";
  EXPECT_EQ(device_.write_waits,
            (std::vector<std::chrono::nanoseconds>{kQuarter, kQuarter, kQuarter}))
      << "for each device that begins to stall, and for the one that stalls anew";
}

TEST_F(TapReaderTest, ANewTableEndsTheWaitForAnInject) {
  RouteToPassthrough();
  device_.stalled = {ScriptedDevice::kInjectFd};
  device_.on_write_wait = [this] { routes_.Publish(std::make_unique<RouteTable>()); };
  device_.Deliver(MakePacket(1, kTenMs, kFormat));
  Run();
  EXPECT_EQ(device_.write_waits.size(), 1u);
  routes_.WaitForGracePeriod();
}

TEST_F(TapReaderTest, PassesAudioOnWithTheStoredHeader) {
  RouteToPassthrough();
  Bytes first = MakePacket(1, kTenMs, kFormat);
  first[40] = std::byte{0xAB};  // in the part that is not interpreted
  Bytes second = MakePacket(2, kTenMs, kFormat);
  second[40] = std::byte{0xCD};
  device_.Deliver(first);
  device_.Deliver(second, 10);
  Run();
  ASSERT_EQ(device_.written.size(), 2u);
  EXPECT_EQ(device_.written[0], first);
  Bytes expected = second;
  expected[40] = std::byte{0xAB};  // the header is that of the last format change
  EXPECT_EQ(device_.written[1], expected);
  EXPECT_EQ(recorder_.numbers, (std::vector<uint32_t>{1, 2}));
  EXPECT_EQ(inject_recorder_.numbers, (std::vector<uint32_t>{1, 2}));
}

TEST_F(TapReaderTest, DisabledProcessorsInjectSilenceAndFailingOnesWhatTheyWrote) {
  RouteTo(std::make_shared<PassthruProcessor>(MakeFourCc("pass"), MakeFourCc("pass")));
  device_.Deliver(MakePacket(1, kTenMs, kFormat));
  device_.Do([this] {
    RouteTo(std::make_shared<FailingProcessor>(MakeFourCc("fail"), MakeFourCc("fail")));
  });
  device_.Deliver(MakePacket(2, kTenMs, kFormat), 10);
  Run();
  ASSERT_EQ(device_.written.size(), 2u);
  Bytes silent = MakePacket(1, kTenMs, kFormat);
  std::fill(silent.begin() + kPacketHeaderSize, silent.end(), std::byte{0});
  EXPECT_EQ(device_.written[0], silent);
  EXPECT_EQ(device_.written[1][kPacketHeaderSize], std::byte{0x55});
  EXPECT_EQ(device_.written[1].back(), std::byte{0});
}

TEST_F(TapReaderTest, SlippedPacketsAreNotDispatched) {
  RouteToPassthrough();
  uint32_t number = 0;
  device_.Deliver(MakePacket(++number, kTenMs, kFormat));
  for (const double ms : {7.0, 7.0, 10.0})
    device_.Deliver(MakePacket(++number, kTenMs, kFormat), ms);
  Run();
  EXPECT_EQ(device_.written.size(), 3u) << "the second early one is missing";
  EXPECT_EQ(recorder_.numbers.size(), 4u) << "but it is recorded";
  EXPECT_EQ(log_.Count("W tapout0 RX packet is early, period:7 ms"), 2u);
  EXPECT_EQ(log_.Count("I tapout0 RX resync"), 2u);
  EXPECT_EQ(log_.Count("I tapout0 ioProcess RX packet_num jump 2 -> 4"), 1u);
  EXPECT_EQ(reader_->statistics().early, 2u);
  EXPECT_EQ(reader_->statistics().packets, 3u);
}

TEST_F(TapReaderTest, ReportsEveryTwoSecondsOfPackets) {
  for (uint32_t number = 1; number <= 400; ++number) {
    device_.Deliver(MakePacket(number, kTenMs, kFormat), 10);
  }
  Run();
  EXPECT_EQ(log_.Count("I tapout0: RX packet_num:200 payload_sz:1920 period:10 ms"), 1u);
  EXPECT_EQ(log_.Count("RX packet_num:"), 2u);
  EXPECT_EQ(log_.Count("I tapout0: wav file capture is ENABLED, 77 samples"), 2u);
}

TEST_F(TapReaderTest, SaysThatItWaitsAtOnceAndThenEveryTwentyTimes) {
  for (int i = 0; i < 42; ++i) device_.StayQuiet();
  Run();
  EXPECT_EQ(log_.Count("I tapout0 waiting for KVO RX\n"), 3u);
}

TEST_F(TapReaderTest, TransientReadErrorsCostTenMillisecondsEach) {
  RouteToPassthrough();
  device_.Deliver(MakePacket(1, kTenMs, kFormat));
  device_.FailRead(EIO);
  device_.HangUp();
  device_.Deliver(MakePacket(2, kTenMs, kFormat));
  Run();
  EXPECT_EQ(log_.Count("E tapout0 KVO read status -1 (errno 5: Input/output error), trying again, "
                       "handle_ 100, read_sz 1984"),
            1u);
  EXPECT_EQ(device_.pauses_ms, (std::vector<int>{10, 10})) << "a hung-up device is not spun on";
  EXPECT_EQ(device_.requested.back(), kPacketMaxSize) << "resynchronising";
  EXPECT_EQ(log_.Count("I tapout0 RX resync"), 1u);
  EXPECT_EQ(device_.written.size(), 2u);
}

TEST_F(TapReaderTest, TenErrorsInARowReopenTheDevice) {
  for (int i = 0; i < 11; ++i) device_.FailRead(EIO);
  device_.open_errors = 2;
  device_.Deliver(MakePacket(1, kTenMs, kFormat));
  Run();
  EXPECT_EQ(log_.Count("I tapout0 Attempting to reinitialize KVO interface"), 3u);
  EXPECT_EQ(
      log_.Count("E Error opening /tapout0, status -1 (errno 6: No such device or address)\n"), 2u);
  EXPECT_EQ(log_.Count("I tapout0 Re-init success"), 1u);
  EXPECT_EQ(device_.opened.size(), 3u);
  EXPECT_EQ(device_.closed, (std::vector<int>{ScriptedDevice::kTapoutFd}));
  EXPECT_EQ(recorder_.numbers.size(), 1u);
}

TEST_F(TapReaderTest, APacketStartsTheCountOfErrorsAfresh) {
  for (uint32_t number = 1; number <= 2; ++number) {
    for (int i = 0; i < 10; ++i) device_.FailRead(EIO);
    device_.Deliver(MakePacket(number, kTenMs, kFormat));
  }
  Run();
  EXPECT_TRUE(device_.opened.empty());
  EXPECT_EQ(recorder_.numbers.size(), 2u);
}

TEST_F(TapReaderTest, WakesForNothingAreNoErrors) {
  const Bytes packet = MakePacket(1, kTenMs, kFormat);
  device_.Deliver(Part(packet, 0, 1000));
  device_.FailRead(EINTR);
  device_.Deliver(Part(packet, 1000, 984));
  for (int i = 0; i < 30; ++i) device_.FailRead(EAGAIN);
  device_.Deliver(MakePacket(2, kTenMs, kFormat));
  Run();
  EXPECT_EQ(recorder_.numbers, (std::vector<uint32_t>{1, 2}));
  EXPECT_EQ(log_.Count("KVO read status"), 0u);
  EXPECT_EQ(device_.pauses_ms, std::vector<int>(29, 10)) << "but a device may not spin the thread";
  EXPECT_TRUE(device_.opened.empty());
}

TEST_F(TapReaderTest, GivesUpAfterFiveFailedReopenings) {
  for (int i = 0; i < 11; ++i) device_.FailRead(EIO);
  device_.open_errors = 5;
  Run();
  EXPECT_EQ(log_.Count("E tapout0 KVO interface error, status -1\n"), 1u);
  EXPECT_TRUE(gave_up_);
  EXPECT_EQ(log_.Take().back(), "I tapout0 ioProcess end");
}

TEST_F(TapReaderTest, BadDataIsLoggedAndSurvived) {
  RouteToPassthrough();
  device_.Deliver(Bytes(12));
  device_.Deliver(Bytes(4096));
  const Bytes wrong = With(MakePacket(1, 480, kFormat), 4, uint32_t{2});
  device_.Deliver(wrong);
  device_.Deliver(MakePacket(5, 480, kFormat) + Bytes(16));
  Run();
  const auto lines = log_.Take();
  const std::vector<std::string> expected = {"I tapout0 RX resync",
                                             "E tapout0: RX alignment error, 12 bytes received",
                                             "I tapout0 RX resync",
                                             "I tapout0 skipping 4096 bytes",
                                             "E tapout0: Invalid packet version 2 (expected 1)",
                                             "E header not found",
                                             "E tapout0 received excess 16 bytes (560 > 544)",
                                             "I tapout0 ioProcess RX packet_num jump 0 -> 5"};
  EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 8), expected);
  EXPECT_EQ(device_.written.size(), 1u);
}

TEST_F(TapReaderTest, EndlessJunkIsReadSlowlyAndTheStreamBehindItIsFound) {
  RouteToPassthrough();
  const Bytes wrong = With(MakePacket(1, 480, kFormat), 4, uint32_t{2});
  for (int i = 0; i < 6; ++i) {
    device_.Deliver(Bytes(4096));
    device_.Deliver(wrong);
    device_.Deliver(Bytes(12));
  }
  const Bytes packet = MakePacket(5, 480, kFormat);
  device_.Deliver(Bytes(4096) + packet);
  device_.Deliver(Bytes(4096));
  Run();
  EXPECT_EQ(device_.pauses_ms, std::vector<int>(3, 10)) << "after reads 16 to 18";
  EXPECT_EQ(log_.Count("I tapout0 skipping 4096 bytes"), 6u);
  EXPECT_EQ(device_.written, std::vector<Bytes>{packet});
}

}  // namespace
}  // namespace kvox
