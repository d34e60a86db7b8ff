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
  bool recording() const override { return on && !numbers.empty(); }
  uint32_t samples() const override { return 77; }
  std::vector<uint32_t> numbers;
  bool on = true;
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

/// Takes that long, and passes its blocks on.
class SlowProcessor : public KvoxProcessor {
 public:
  SlowProcessor(FourCc id, ScriptedDevice& device, double ms)
      : KvoxProcessor(id, id), device_(device), ms_(ms) {}
  BlockResult ProcessBlock(const Block&, OutputArea*) override {
    device_.Advance(ms_);
    return {.output_is_input = true};
  }

 private:
  ScriptedDevice& device_;
  const double ms_;
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

  /// What the flight log has of each packet.
  std::vector<flight::PacketRecord> Records() const {
    std::vector<flight::PacketRecord> records(slot_->packets.load());
    for (size_t i = 0; i < records.size(); ++i) {
      EXPECT_TRUE(flight::Unseal(slot_->records[i], i, records[i]));
    }
    return records;
  }

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
  const std::unique_ptr<flight::StreamSlot> slot_ = std::make_unique<flight::StreamSlot>();
  std::unique_ptr<TapReader> reader_ =
      std::make_unique<TapReader>(TapReaderLinks{.name = name_,
                                                 .device_path = path_,
                                                 .io = device_,
                                                 .routes = routes_,
                                                 .rx_format = rx_format_,
                                                 .recorder = recorder_,
                                                 .log = log_,
                                                 .wake = wake_,
                                                 .gave_up = gave_up_,
                                                 .flight = slot_.get()},
                                  ScriptedDevice::kTapoutFd);
};

TEST_F(TapReaderTest, TheFlightLogSaysWhatBecameOfEachPacket) {
  using enum flight::Loss;
  constexpr KvoxTapFormat kUntimed = {.channels = 2, .bytes_per_sample = 2};
  struct Expected {
    uint32_t number;
    flight::Loss loss;
    uint32_t missing = 0;
    flight::Loss because = kNone;
  };
  std::vector<Expected> expected;
  const auto packet = [&](const Expected& one, const Bytes& behind = {}) {
    const uint32_t size = behind.empty() ? kTenMs : kTenMs / 2;  // so that one read has both
    device_.Deliver(MakePacket(one.number, size, kUntimed) + behind);
    expected.push_back(one);
  };
  recorder_.on = false;
  packet({1, kNoRoute});
  device_.Do([&] { recorder_.on = true; });
  packet({2, kNone});  // a capture has it
  device_.Do([&] { RouteToPassthrough(); });
  packet({3, kNone});
  device_.Do([&] { device_.write_limits = {0}; });
  packet({4, kInjectFull});
  device_.Do([&] { device_.write_errno = EPIPE, device_.write_limits = {0}; });
  packet({5, kInjectGone});
  device_.Do([&] { device_.writable = true, device_.write_limits = {64, 0}; });
  packet({6, kInjectFull});  // after a part
  device_.Do([&] {
    device_.write_errno = EAGAIN;
    RouteTo(std::make_shared<FailingProcessor>(MakeFourCc("fail"), MakeFourCc("fail")));
  });
  packet({7, kProcessor});
  device_.Do([&] { RouteToPassthrough(); });
  packet({9, kNone, 1, kJump});
  device_.FailRead(EIO);
  packet({11, kNone, 1, kDevice});
  device_.Deliver(Bytes(12));
  packet({13, kNone, 1, kAlignment});
  device_.Deliver(Bytes(4096));
  packet({15, kNone, 1, kNoMagic});
  packet({16, kNone}, Bytes(16));
  packet({18, kNone, 1, kExcess});
  device_.Do([&] {
    device_.writable = false;
    device_.stalled = {ScriptedDevice::kInjectFd};
    device_.on_write_wait = [&] { routes_.Publish(std::make_unique<RouteTable>()); };
  });
  packet({19, kRewired});
  device_.Do([&] {
    RouteToPassthrough();
    device_.on_write_wait = [&] { reader_->Stop(); };
  });
  packet({20, kSwitchedOff});
  Run();
  const auto records = Records();
  ASSERT_EQ(records.size(), expected.size());
  for (size_t i = 0; i < records.size(); ++i) {
    EXPECT_EQ(records[i].number, expected[i].number);
    EXPECT_EQ(records[i].loss, expected[i].loss) << "packet " << records[i].number;
    EXPECT_EQ(records[i].missing, expected[i].missing) << "packet " << records[i].number;
    EXPECT_EQ(records[i].missing_because, expected[i].because) << "packet " << records[i].number;
  }
  EXPECT_EQ(records[6].slowest_id, static_cast<uint32_t>(MakeFourCc("fail")));
  uint64_t accounted = slot_->dispatched.load();
  for (const flight::Word& lost : slot_->lost) accounted += lost.load();
  EXPECT_EQ(accounted, 20u);
  routes_.WaitForGracePeriod();
}

TEST_F(TapReaderTest, TheFlightLogSaysWhatTookHowLong) {
  auto table = std::make_unique<RouteTable>();
  flight::InjectSlot inject_slot = {};
  const auto port = [&](int fd) {
    const auto number = static_cast<uint8_t>(fd % 100);
    return std::make_shared<InjectPort>("inject0", "/inject0", device_, inject_recorder_, fd,
                                        flight::InjectLog(&inject_slot, number));
  };
  const auto add = [&](FourCc id, double ms, int fd) {
    table->routes.push_back({.processor = std::make_shared<SlowProcessor>(id, device_, ms),
                             .connected = true,
                             .port = fd < 0 ? nullptr : port(fd)});
  };
  add(MakeFourCc("aaaa"), 1, 201);
  add(MakeFourCc("bbbb"), 3, -1);
  add(MakeFourCc("cccc"), 0.5, 202);
  routes_.Publish(std::move(table));
  device_.stalled = {202};  // for the whole patience of 2.5 ms
  device_.Deliver(MakePacket(1, kTenMs, kFormat));
  device_.stalled = {202};
  device_.Deliver(MakePacket(2, kTenMs, kFormat), 3);
  Run();
  const auto records = Records();
  ASSERT_EQ(records.size(), 2u);
  const flight::PacketRecord& first = records[0];
  EXPECT_EQ(first.period_ns, 10'000'000u);
  EXPECT_EQ(first.routes, 3);
  EXPECT_EQ(first.slowest_id, static_cast<uint32_t>(MakeFourCc("bbbb")));
  EXPECT_EQ(first.slowest_ns, 3'000'000u);
  EXPECT_EQ(first.dispatch_ns, 7'000'000u);
  EXPECT_EQ(first.write_ns, 2'500'000u);
  EXPECT_EQ(first.written, 0b10'00'01) << "whole, nothing, full";
  EXPECT_EQ(first.failed_inject, 2);
  EXPECT_EQ(inject_slot.written.load(), 2u);
  EXPECT_EQ(inject_slot.full.load(), 2u);
  EXPECT_EQ(records[1].arrived_ns, first.arrived_ns + 10'000'000) << "7 ms of work, 3 ms of wait";
  EXPECT_EQ(records[1].write_ns, 0u) << "a stalled device costs nothing";
  EXPECT_EQ(records[1].flags & flight::kQueued, 0);
}

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
  EXPECT_EQ(Records()[2].loss, flight::Loss::kSlip);
  EXPECT_EQ(Records()[2].arrival, flight::Arrival::kEarly);
  EXPECT_EQ(slot_->early.load(), 2u);
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
