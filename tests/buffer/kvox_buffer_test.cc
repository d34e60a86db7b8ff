#include "buffer/kvox_buffer.h"

#include <thread>

#include "kvox/common/log_ring.h"
#include "tests/buffer/buffer_fixture.h"
#include "tests/support/no_threads.h"

namespace kvox {
namespace {

using Lines = std::vector<std::string>;

class KvoxBufferTest : public BufferFixture {
 protected:
  void TearDown() override {
    tapout_->Drop();
    inject_->Drop();
  }

  void ConnectChain(const std::shared_ptr<KvoxProcessor>& processor) {
    tapout_->RegisterOutput(processor);
    inject_->RegisterInput(processor);
    processor->SetInput(tapout_);
  }

  static void WaitForBlocks(KvoxProcessor& processor, int count) {
    IKvox::ProcessorStats stats;
    while (stats.blockCount < count) processor.GetStats(&stats);
  }

  std::shared_ptr<KvoxBuffer> tapout_ = MakeBuffer("tapout0", 0, true);
  std::shared_ptr<KvoxBuffer> inject_ = MakeBuffer("inject0", 0, false);
};

TEST_F(KvoxBufferTest, RegistersEachProcessorOnceAndInOneDirection) {
  const auto p = MakePassthrough(MakeFourCc("pppp"));
  const auto q = MakePassthrough(MakeFourCc("qqqq"));
  EXPECT_EQ(inject_->RegisterOutput(p), -1);
  EXPECT_EQ(tapout_->RegisterInput(p), -1);
  EXPECT_EQ(inject_->RegisterInput(nullptr), -1);
  for (const auto& processor : {p, p, q}) EXPECT_EQ(tapout_->RegisterOutput(processor), 0);
  EXPECT_EQ(tapout_->GetOutputsAsString(), p < q ? "pppp,qqqq" : "qqqq,pppp");
  EXPECT_EQ(tapout_->UnregisterOutput(p.get()), 0);
  EXPECT_EQ(tapout_->UnregisterOutput(p.get()), -1);

  for (const auto& processor : {p, q}) EXPECT_EQ(inject_->RegisterInput(processor), 0);
  EXPECT_EQ(p->output(), nullptr) << "a new writer replaces the old one";
  EXPECT_EQ(inject_->GetInputAsString(), "qqqq");
}

TEST_F(KvoxBufferTest, LettingGoLeavesAProcessorItsNewBuffers) {
  const auto processor = MakePassthrough();
  const auto tapout = MakeBuffer("tapout1", 1, true);
  const auto inject = MakeBuffer("inject1", 1, false);
  ConnectChain(processor);
  tapout->RegisterOutput(processor);
  inject->RegisterInput(processor);
  processor->SetInput(tapout);
  tapout_->UnregisterOutput(processor.get());
  inject_->Drop();
  EXPECT_EQ(processor->feed(), tapout);
  EXPECT_EQ(processor->input(), tapout);
  EXPECT_EQ(processor->output(), inject);
  tapout->Drop();
  inject->Drop();
  EXPECT_FALSE(processor->feed() || processor->input() || processor->output());
}

TEST_F(KvoxBufferTest, EnablingAndDisablingTwiceOnlySaysSo) {
  for (const bool on : {true, true, false, false}) EXPECT_EQ(tapout_->Enable(on), 0);
  for (const char* line :
       {"I Enable buffer tapout0 (0 processors connected), I/O thread start",
        "I Enable buffer tapout0: already enabled", "I Buffer tapout0 disabled, I/O thread end",
        "I Disable buffer tapout0: already disabled"}) {
    EXPECT_EQ(log_.Count(line), 1u) << line;
  }
}

TEST_F(KvoxBufferTest, StaysOffWithoutAThread) {
  {
    const NoThreads none;
    EXPECT_EQ(tapout_->Enable(true), -1);
  }
  EXPECT_EQ(log_.Count("E tapout0: cannot start the I/O thread: "), 1u);
  EXPECT_FALSE(tapout_->IsEnabled());
  EXPECT_EQ(tapout_->Enable(true), 0);
}

TEST_F(KvoxBufferTest, AudioPassesAndFollowsEverySwitch) {
  const auto processor = MakePassthrough();
  ConnectChain(processor);
  ASSERT_EQ(inject_->Enable(true), 0);
  ASSERT_EQ(tapout_->Enable(true), 0);
  const size_t size = kPacketHeaderSize + 1920;
  SendPacket(MakePacket(1, 1920));
  EXPECT_EQ(ReceivePacket(size), MakePacket(1, 1920));

  inject_->Enable(false);
  SendPacket(MakePacket(2, 1920));
  WaitForBlocks(*processor, 2);
  processor->Enable(false);
  inject_->Enable(true);
  SendPacket(MakePacket(3, 1920));
  Bytes silent = MakePacket(3, 1920);
  std::fill(silent.begin() + kPacketHeaderSize, silent.end(), std::byte{0});
  EXPECT_EQ(ReceivePacket(size), silent) << "packet 2 went nowhere";

  processor->Disconnect();
  const auto other = MakePassthrough(MakeFourCc("othr"));
  ConnectChain(other);
  SendPacket(MakePacket(4, 1920));
  EXPECT_EQ(ReceivePacket(size), MakePacket(4, 1920));
}

TEST_F(KvoxBufferTest, DisablingEndsTheWaitForAMissingDevice) {
  directory_.Remove("tapout0");
  std::thread enabler([&] { EXPECT_EQ(tapout_->Enable(true), -1); });
  ASSERT_TRUE(log_.WaitFor("I tapout0 Attempting to reinitialize KVO interface, attempt 1\n"));
  EXPECT_EQ(tapout_->Enable(false), 0);
  enabler.join();
  EXPECT_EQ(log_.Count("attempt 2"), 0u);
  EXPECT_EQ(
      log_.Count("E Open " + (directory_ / "tapout0").string() + " failed, status -1, errno 2"),
      1u);
  EXPECT_EQ(log_.Count("I Disable buffer tapout0: already disabled"), 1u);
  tapout_->AbandonOpening();
  EXPECT_EQ(tapout_->Enable(true), -1) << "a dropped buffer stays off";
}

TEST_F(KvoxBufferTest, TheStreamsFormatIsKnownToWhoeverRegisters) {
  const KvoxTapFormat format = {.sample_rate = 48000,
                                .channels = 2,
                                .bytes_per_sample = 2,
                                .data_format = 1,
                                .noninterleaved_samples = 480};
  ASSERT_EQ(tapout_->Enable(true), 0);
  SendPacket(MakePacket(1, 1920, format));
  ASSERT_TRUE(log_.WaitFor("RX format change"));
  const auto processor = MakePassthrough();
  // The thread stores the format right behind its log line.
  while (tapout_->RxFormat().sample_rate == 0) std::this_thread::yield();
  tapout_->RegisterOutput(processor);
  EXPECT_EQ(processor->GetDataFormat(), Kvox::DataFormat::FLOAT);
  EXPECT_EQ(processor->GetNonInterleavedSamples(), 480u);

  tapout_->SetRxFormat({.sample_rate = 16000, .channels = 1, .bytes_per_sample = 4});
  EXPECT_EQ(processor->GetSampleRate(), 16000u);
  SendPacket(MakePacket(2, 1920, format));
  EXPECT_TRUE(log_.WaitFor("RX format change 16kHz 1ch")) << "the stream corrects the command";
  tapout_->Enable(false);
  tapout_->Enable(true);
  EXPECT_EQ(tapout_->RxFormat().sample_rate, 0u);
}

/// Meets a command that sets another format while it is being told one.
class InterruptedProcessor : public PassthruProcessor {
 public:
  using PassthruProcessor::PassthruProcessor;
  int32_t SetFormat(const KvoxTapFormat& format) override {
    if (auto interrupt = std::exchange(on_format, nullptr)) interrupt();
    return PassthruProcessor::SetFormat(format);
  }
  std::function<void()> on_format;
};

TEST_F(KvoxBufferTest, TheNewerOfTwoFormatsReachesAProcessorLast) {
  const auto processor =
      std::make_shared<InterruptedProcessor>(MakeFourCc("pass"), PassthruProcessor::kType);
  tapout_->SetRxFormat({.sample_rate = 48000, .channels = 1, .bytes_per_sample = 2});
  std::thread command;
  processor->on_format = [&] {
    command = std::thread([&] {
      tapout_->SetRxFormat({.sample_rate = 16000, .channels = 1, .bytes_per_sample = 2});
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // time enough to overtake
  };
  tapout_->RegisterOutput(processor);
  command.join();
  EXPECT_EQ(processor->GetSampleRate(), 16000u);
}

TEST_F(KvoxBufferTest, EverythingMayChangeWhileAudioFlows) {
  // Nothing may be used after its end; the sanitizers watch. In the end audio passes as before.
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
  std::string message;
  for (int i = 0; i < 200; ++i) {
    if (i % 8 == 0) inject_->CaptureStart(directory_ / "a.wav", message);
    if (i % 8 == 6) {
      EXPECT_EQ(inject_->CaptureStop(message), 0) << message;
    }
    auto processor = MakePassthrough();
    ConnectChain(processor);
    if (i % 5 == 0) inject_->Enable(i % 2 == 0);
    if (i % 7 == 0) tapout_->Enable(i % 2 == 0);
    if (i % 11 == 0) tapout_->SetRxFormat({.sample_rate = 0, .channels = 2, .bytes_per_sample = 2});
    processor->Disconnect();
  }
  done = true;
  co_processor.join();
  inject_->Enable(true);
  tapout_->Enable(false);
  std::array<std::byte, kPacketMaxSize> bin;
  for (const int fd : {source_.get(), sink_.get()}) {
    while (read(fd, bin.data(), bin.size()) > 0) {
    }
  }
  tapout_->Enable(true);
  ConnectChain(MakePassthrough());
  SendPacket(MakePacket(77, 1920));
  EXPECT_EQ(ReceivePacket(kPacketHeaderSize + 1920), MakePacket(77, 1920));
}

/// As in the daemon: I/O threads log through a ring. Its lines are marked.
class RingLogTest : public BufferFixture {
 protected:
  LogTarget& io_log() override { return ring_; }

 private:
  class Marker : public LogTarget {
   public:
    explicit Marker(LogTarget& target) : target_(target) {}
    void Write(LogPriority priority, const char* tag, const char* line) override {
      target_.Write(priority, tag, ("ring: " + std::string(line)).c_str());
    }

   private:
    LogTarget& target_;
  };

  Marker marker_{log_};
  DeferredLog ring_{marker_};
};

TEST_F(RingLogTest, EveryLineOfAnIoThreadTakesTheRingAndComesBeforeItsEnd) {
  const auto tapout = MakeBuffer("tapout0", 0, true);
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ(tapout->Enable(true), 0);
    ASSERT_EQ(tapout->Enable(false), 0);
    EXPECT_EQ(log_.Count("kvox_utils failed"), log_.Count("ring: kvox/common/kvox_utils failed"));
    const Lines lines = log_.Take();
    ASSERT_EQ(lines.back(), "I Buffer tapout0 disabled, I/O thread end");
    ASSERT_EQ(lines[lines.size() - 2], "I ring: tapout0 ioProcess end");
  }
}

}  // namespace
}  // namespace kvox
