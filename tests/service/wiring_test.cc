#include "service/wiring.h"

#include <array>
#include <atomic>
#include <functional>
#include <thread>

#include "tests/buffer/buffer_fixture.h"
#include "tests/support/process.h"
#include "tests/support/service_surroundings.h"

namespace kvox {
namespace {

constexpr FourCc kPass = MakeFourCc("pass");

/// A tap-out and an inject buffer on FIFOs, in the service's tables.
class WiringTest : public BufferFixture {
 protected:
  WiringTest() {
    for (const char* name : {"tapout0", "inject0", "inject1"}) directory_.MakeFifo(name);
    source_ = UniqueFd(open((directory_ / "tapout0").c_str(), O_RDWR));
    sink_ = UniqueFd(open((directory_ / "inject0").c_str(), O_RDWR | O_NONBLOCK));
    inventory_.AddBuffers({.any_tapout_path = true,
                           .tapouts = {{0, "tapout0", directory_ / "tapout0"}},
                           .injects = {{0, "inject0", directory_ / "inject0"},
                                       {1, "inject1", directory_ / "inject1"}}},
                          {.io = SystemDeviceIo(),
                           .io_log = log_,
                           .wiring = wiring_,
                           .capture_threads = capture_threads_,
                           .flight = flight_});
    tapout_ = inventory_.FindTapOut(0);
    inject_ = inventory_.FindInject(0);
  }
  ~WiringTest() override {
    for (const BufferPtr& buffer : inventory_.TakeBuffers()) wiring_.DropBuffer(buffer);
  }

  void Put(const ProcessorPtr& processor) {
    bool replaced = false;
    EXPECT_TRUE(wiring_.ReplaceProcessor(processor->id(), processor, replaced));
  }
  StatusCode Connect(int tapout, int inject) {
    Report report;
    wiring_.Connect(kPass, tapout, inject, report);
    return report.status;
  }

  static constexpr KvoxTapFormat kFormat = {.sample_rate = 48000,
                                            .channels = 2,
                                            .bytes_per_sample = 2,
                                            .data_format = 1,
                                            .noninterleaved_samples = 480};

  Inventory inventory_;
  SavedState saved_;
  Wiring wiring_{inventory_, saved_};  // in place of the fixture's
  BufferPtr tapout_;
  BufferPtr inject_;
};

TEST_F(WiringTest, AProcessorLearnsTheFormatOfTheStreamItIsConnectedTo) {
  using Field = KvoxProcessor::FormatField;
  ASSERT_EQ(tapout_->Enable(true), 0);
  SendPacket(MakePacket(1, 1920, kFormat));
  ASSERT_TRUE(YieldUntil([&] { return tapout_->RxFormat().sample_rate != 0; }));
  const auto processor = MakePassthrough();
  Put(processor);
  EXPECT_EQ(Connect(0, -1), StatusCode::kOk);
  EXPECT_EQ(processor->format(Field::kDataFormat), 1u);
  EXPECT_EQ(processor->format(Field::kNonInterleavedSamples), 480u);
  wiring_.SetRxFormat(tapout_, {.sample_rate = 16000, .channels = 1, .bytes_per_sample = 4});
  EXPECT_EQ(processor->format(Field::kSampleRate), 16000u);
}

/// While it gets a format, a command sets another one.
class InterruptedProcessor : public PassthruProcessor {
 public:
  using PassthruProcessor::PassthruProcessor;
  int32_t SetFormat(const KvoxTapFormat& format) override {
    if (auto interrupt = std::exchange(on_format, nullptr)) interrupt();
    return PassthruProcessor::SetFormat(format);
  }
  std::function<void()> on_format;
};

TEST_F(WiringTest, TheNewerOfTwoFormatsReachesAProcessorLast) {
  const auto processor = std::make_shared<InterruptedProcessor>(kPass, PassthruProcessor::kType);
  Put(processor);
  wiring_.SetRxFormat(tapout_, kFormat);
  std::thread command;
  processor->on_format = [&] {
    command = std::thread([&] {
      wiring_.SetRxFormat(tapout_, {.sample_rate = 16000, .channels = 1, .bytes_per_sample = 2});
    });
    EXPECT_TRUE(log_.WaitFor("set format sr:16000"));
    std::this_thread::yield();
  };
  Connect(0, -1);
  command.join();
  EXPECT_EQ(processor->format(KvoxProcessor::FormatField::kSampleRate), 16000u);
}

TEST_F(WiringTest, AudioOfTheNewSourceNeverReachesTheOldOutput) {
  const auto processor = std::make_shared<InterruptedProcessor>(kPass, PassthruProcessor::kType);
  Put(processor);
  wiring_.SetRxFormat(tapout_, kFormat);
  ASSERT_EQ(Connect(-1, 1), StatusCode::kOk);
  bool between = false;
  processor->on_format = [&] {
    between = true;
    EXPECT_EQ(wiring_.EndpointsOf(*processor).output, nullptr);
  };
  ASSERT_EQ(Connect(0, 0), StatusCode::kOk);
  EXPECT_TRUE(between);
  EXPECT_EQ(wiring_.EndpointsOf(*processor).output, inject_);
}

TEST_F(WiringTest, ADepartureEndsTheRestoringOfATap) {
  FakeCoprocessor link;
  TapPoints taps(link, inventory_, saved_, wiring_);
  const TapArguments tap = {2, MakeFourCc("imic"), 0};
  saved_.BindTap(tap, kNoBuffer, 0);
  for (const bool stopping : {true, false}) {
    link.opcodes.clear();
    taps.Restore(TapKey(tap.Address()), [=] { return stopping; });
    EXPECT_EQ(link.opcodes.size(), stopping ? 1u : 2u) << "binding, and then switching it";
  }
}

TEST_F(WiringTest, AStartThatFailsTakesBackOnlyWhatItHasSavedItself) {
  std::vector<NamedBuffer> tapout0 = {{"tapout0", {0, true}, true}};
  const uint64_t first = saved_.SaveStart(tapout0);
  saved_.SaveStop([](const RunningBuffer&) { return true; });
  const uint64_t second = saved_.SaveStart(tapout0);
  saved_.ConfirmStart(*tapout_, first, false);
  EXPECT_TRUE(saved_.IsRunning(*tapout_)) << "a newer start wants it";
  saved_.ConfirmStart(*tapout_, second, true);
  saved_.ConfirmStart(*tapout_, saved_.SaveStart(tapout0), false);
  EXPECT_TRUE(saved_.IsRunning(*tapout_)) << "it ran before";
  saved_.SaveStop([](const RunningBuffer&) { return true; });
  saved_.ConfirmStart(*tapout_, saved_.SaveStart(tapout0), false);
  EXPECT_FALSE(saved_.IsRunning(*tapout_));
}

TEST_F(WiringTest, ADroppedBufferTakesNoConnection) {
  Put(MakePassthrough());
  for (const BufferPtr& buffer : {tapout_, inject_}) wiring_.DropBuffer(buffer);
  EXPECT_EQ(Connect(0, 0), StatusCode::kOk) << "it was found before it was dropped";
  const Wiring::Endpoints ends = wiring_.EndpointsOf(*inventory_.FindProcessor(kPass));
  EXPECT_FALSE(ends.input || ends.output);
}

TEST_F(WiringTest, EverythingMayChangeWhileAudioFlows) {
  // The sanitizers detect use after free. In the end audio passes as before.
  ASSERT_EQ(inject_->Enable(true), 0);
  ASSERT_EQ(tapout_->Enable(true), 0);
  std::atomic<bool> done = false;
  std::thread co_processor([&] {
    fcntl(source_.get(), F_SETFL, O_NONBLOCK);
    std::array<std::byte, kPacketMaxSize> bin;
    for (uint32_t number = 1; !done; ++number) {
      const Bytes packet = MakePacket(number, 1920);
      (void)!write(source_.get(), packet.data(), packet.size());
      (void)!read(sink_.get(), bin.data(), bin.size());
    }
  });
  std::thread looker([&] {
    while (!done) {
      for (const ProcessorPtr& processor : inventory_.Processors()) wiring_.EndpointsOf(*processor);
      EXPECT_LE(wiring_.ReadersOf(*tapout_).size(), 1u);
    }
  });
  std::string message;
  for (int i = 0; i < 200; ++i) {
    if (i % 8 == 0) inject_->capture().Start(directory_ / "a.wav", message);
    if (i % 8 == 6) {
      EXPECT_EQ(inject_->capture().Stop(message), 0) << message;
    }
    Put(MakePassthrough());
    Connect(0, i % 3 == 0 ? 1 : 0);
    if (i % 5 == 0) inject_->Enable(i % 2 == 0);
    if (i % 7 == 0) tapout_->Enable(i % 2 == 0);
    if (i % 11 == 0) wiring_.SetRxFormat(tapout_, {.channels = 2, .bytes_per_sample = 2});
    if (i % 13 == 0) Connect(-1, -1);
  }
  done = true;
  co_processor.join();
  looker.join();
  inject_->Enable(true);
  tapout_->Enable(false);
  std::array<std::byte, kPacketMaxSize> bin;
  for (const int fd : {source_.get(), sink_.get()}) {
    while (read(fd, bin.data(), bin.size()) > 0) {
    }
  }
  tapout_->Enable(true);
  Put(MakePassthrough());
  EXPECT_EQ(Connect(0, 0), StatusCode::kOk);
  SendPacket(MakePacket(77, 1920));
  EXPECT_EQ(ReceivePacket(kPacketHeaderSize + 1920), MakePacket(77, 1920));
}

/// What two clients start at once is remembered if one of them has succeeded.
TEST_F(WiringTest, StartsThatFailTogetherAreForgotten) {
  std::vector<NamedBuffer> named = {{"tapout0", {0, true}, true}};
  for (const bool first_starts : {false, true}) {
    const uint64_t first = saved_.SaveStart(named);
    const uint64_t second = saved_.SaveStart(named);
    saved_.ConfirmStart(*tapout_, first, first_starts);
    saved_.ConfirmStart(*tapout_, second, false);
    EXPECT_EQ(saved_.IsRunning(*tapout_), first_starts);
    saved_.SaveStop([](const RunningBuffer&) { return true; });
  }
  std::vector<NamedBuffer> away = {{"tapout0", {0, true}, false}};
  saved_.SaveStart(away);  // was acknowledged
  saved_.ConfirmStart(*tapout_, saved_.SaveStart(named), false);
  EXPECT_TRUE(saved_.IsRunning(*tapout_));
}

}  // namespace
}  // namespace kvox
