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
  int32_t ProcessBlock(const void*, size_t, void* out, size_t out_size) override {
    if (out != nullptr) std::memset(out, 0x55, out_size / 2);
    return -1;
  }
};

/// Plays a scripted device to the reader on the test's own thread, until the script ends.
class TapReaderTest : public ::testing::Test {
 protected:
  void RouteTo(std::shared_ptr<KvoxProcessor> processor) {
    port_ = std::make_shared<InjectPort>("inject0", "/inject0", device_, inject_recorder_,
                                         ScriptedDevice::kInjectFd);
    auto table = std::make_unique<RouteTable>();
    table->routes.push_back(
        {.processor = std::move(processor), .state = nullptr, .output = nullptr, .port = port_});
    routes_.Publish(std::move(table));
    routes_.Settle();
  }

  void RouteToPassthrough() {
    auto processor = std::make_shared<PassthruProcessor>(MakeFourCc("pass"), MakeFourCc("pass"));
    processor->Enable(true);
    RouteTo(processor);
  }

  std::vector<std::string> Run() {
    reader_->Run();
    auto lines = log_.Take();
    EXPECT_GE(lines.size(), 2u);
    return lines;
  }

  ScriptedDevice device_;
  LogCapture log_;
  WakeEvent wake_;
  RoutePublisher routes_{[] {}};
  RxFormatCell rx_format_;
  SpyRecorder recorder_;
  SpyRecorder inject_recorder_;
  std::shared_ptr<InjectPort> port_;
  std::unique_ptr<TapReader> reader_ =
      std::make_unique<TapReader>(TapReaderLinks{.name = "tapout0",
                                                 .device_path = "/tapout0",
                                                 .io = device_,
                                                 .routes = routes_,
                                                 .rx_format = rx_format_,
                                                 .recorder = recorder_,
                                                 .log = log_,
                                                 .wake = wake_},
                                  ScriptedDevice::kTapoutFd);
};

TEST_F(TapReaderTest, TellsWhatTheFirstPacketBrings) {
  device_.Deliver(MakePacket(1, kTenMs, kFormat));
  device_.Deliver(MakePacket(3, 960, kFormat), 5);
  EXPECT_EQ(Run(), (std::vector<std::string>{
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

TEST_F(TapReaderTest, PassesAudioOnWithTheStoredHeader) {
  RouteToPassthrough();
  Bytes first = MakePacket(1, kTenMs, kFormat);
  first[40] = std::byte{0xAB};  // in the part that nobody reads
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
  const auto lines = Run();
  EXPECT_EQ(device_.written.size(), 3u) << "the second early one is missing";
  EXPECT_EQ(recorder_.numbers.size(), 4u) << "but it is recorded";
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "W tapout0 RX packet is early, period:7 ms"), 2);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "I tapout0 RX resync"), 2);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "I tapout0 ioProcess RX packet_num jump 2 -> 4"),
            1);
  EXPECT_EQ(reader_->statistics().early, 2u);
  EXPECT_EQ(reader_->statistics().packets, 3u);
}

TEST_F(TapReaderTest, ReportsEveryTwoSecondsOfPackets) {
  for (uint32_t number = 1; number <= 400; ++number) {
    device_.Deliver(MakePacket(number, kTenMs, kFormat), 10);
  }
  const auto lines = Run();
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       "I tapout0: RX packet_num:200 payload_sz:1920 period:10 ms"),
            1);
  EXPECT_EQ(
      std::count_if(lines.begin(), lines.end(),
                    [](const auto& line) { return line.find("RX packet_num:") != line.npos; }),
      2);
  EXPECT_EQ(
      std::count(lines.begin(), lines.end(), "I tapout0: wav file capture is ENABLED, 77 samples"),
      2);
}

TEST_F(TapReaderTest, SaysThatItWaitsAtOnceAndThenEveryTwentyTimes) {
  for (int i = 0; i < 42; ++i) device_.StayQuiet();
  const auto lines = Run();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "I tapout0 waiting for KVO RX\n"), 3);
}

TEST_F(TapReaderTest, TransientReadErrorsCostTenMillisecondsEach) {
  RouteToPassthrough();
  device_.Deliver(MakePacket(1, kTenMs, kFormat));
  device_.FailRead(EIO);
  device_.HangUp();
  device_.Deliver(MakePacket(2, kTenMs, kFormat));
  const auto lines = Run();
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       "E tapout0 KVO read status -1 (errno 5: Input/output error), trying again, "
                       "handle_ 100, read_sz 1984"),
            1);
  EXPECT_EQ(device_.pauses_ms, (std::vector<int>{10, 10})) << "a hung-up device is not spun on";
  EXPECT_EQ(device_.requested.back(), kPacketMaxSize) << "resynchronising";
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "I tapout0 RX resync"), 1);
  EXPECT_EQ(device_.written.size(), 2u);
}

TEST_F(TapReaderTest, TenErrorsInARowReopenTheDevice) {
  for (int i = 0; i < 11; ++i) device_.FailRead(EIO);
  device_.open_errors = 2;
  device_.Deliver(MakePacket(1, kTenMs, kFormat));
  const auto lines = Run();
  const auto count = [&](const std::string& line) {
    return std::count(lines.begin(), lines.end(), line);
  };
  EXPECT_EQ(count("I tapout0 Attempting to reinitialize KVO interface"), 3);
  EXPECT_EQ(count("E Error opening /tapout0, status -1 (errno 6: No such device or address)\n"), 2);
  EXPECT_EQ(count("I tapout0 Re-init success"), 1);
  EXPECT_EQ(device_.opened.size(), 3u);
  EXPECT_EQ(device_.closed, (std::vector<int>{ScriptedDevice::kTapoutFd}));
  EXPECT_EQ(recorder_.numbers.size(), 1u);
}

TEST_F(TapReaderTest, GivesUpAfterFiveFailedReopenings) {
  for (int i = 0; i < 11; ++i) device_.FailRead(EIO);
  device_.open_errors = 5;
  const auto lines = Run();
  EXPECT_EQ(lines[lines.size() - 2], "E tapout0 KVO interface error, status -1\n");
  EXPECT_EQ(lines.back(), "I tapout0 ioProcess end");
}

TEST_F(TapReaderTest, BadDataIsLoggedAndSurvived) {
  RouteToPassthrough();
  device_.Deliver(Bytes(12));
  device_.Deliver(Bytes(4096));
  Bytes wrong = MakePacket(1, 480, kFormat);
  wrong[4] = std::byte{2};
  device_.Deliver(wrong);
  Bytes excess = MakePacket(5, 480, kFormat);
  excess.resize(excess.size() + 16);
  device_.Deliver(excess);
  const auto lines = Run();
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
  Bytes wrong = MakePacket(1, 480, kFormat);
  wrong[4] = std::byte{2};
  for (int i = 0; i < 6; ++i) {
    device_.Deliver(Bytes(4096));
    device_.Deliver(wrong);
    device_.Deliver(Bytes(12));
  }
  Bytes junk_and_packet(4096);
  const Bytes packet = MakePacket(5, 480, kFormat);
  junk_and_packet.insert(junk_and_packet.end(), packet.begin(), packet.end());
  device_.Deliver(junk_and_packet);
  device_.Deliver(Bytes(4096));
  const auto lines = Run();
  EXPECT_EQ(device_.pauses_ms, std::vector<int>(3, 10)) << "after reads 16 to 18";
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "I tapout0 skipping 4096 bytes"), 6);
  EXPECT_EQ(device_.written, std::vector<Bytes>{packet});
}

TEST_F(TapReaderTest, HeadersWithoutFramesAreCarriedThrough) {
  RouteToPassthrough();
  device_.Deliver(MakePacket(1, 0));
  device_.Deliver(MakePacket(2, 16, {.sample_rate = 48000}));
  Run();
  ASSERT_EQ(device_.written.size(), 2u);
  EXPECT_EQ(device_.written[1], MakePacket(2, 16, {.sample_rate = 48000}));
  EXPECT_EQ(reader_->statistics().samples_per_packet, 0u);
}

}  // namespace
}  // namespace kvox
