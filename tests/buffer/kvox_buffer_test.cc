#include "buffer/kvox_buffer.h"

#include <latch>
#include <thread>

#include "kvox/common/log_ring.h"
#include "tests/buffer/buffer_fixture.h"
#include "tests/support/no_threads.h"
#include "tests/support/process.h"

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
    wiring_.Connect(tapout_, {processor}, inject_);
  }

  static void WaitForBlocks(KvoxProcessor& processor, int count) {
    EXPECT_TRUE(YieldUntil([&] { return static_cast<int>(processor.stats().blocks()) >= count; }));
  }

  std::shared_ptr<KvoxBuffer> tapout_ = MakeBuffer("tapout0", 0, true);
  std::shared_ptr<KvoxBuffer> inject_ = MakeBuffer("inject0", 0, false);
};

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

  ConnectChain(MakePassthrough(MakeFourCc("othr")));
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
  enabler = std::thread([&] { EXPECT_EQ(tapout_->Enable(true), 0); });
  EXPECT_TRUE(log_.WaitFor("I tapout0 Attempting to reinitialize KVO interface, attempt 1\n", 2));
  directory_.MakeFifo("tapout0");
  enabler.join();
  EXPECT_EQ(tapout_->Enable(false), 0);
  tapout_->AbandonOpening();
  EXPECT_EQ(tapout_->Enable(true), -1) << "an abandoned buffer stays off";
  for (const unsigned number : {0u, 1u}) {
    EXPECT_EQ(tapout_->TryEnable(number, [] { return true; }), KvoxBuffer::Try::kFailed);
  }
}

TEST_F(KvoxBufferTest, OneThatGaveUpIsEnabledAnew) {
  ScriptedDevice device;
  std::latch enabled(1);
  for (int i = 0; i < 10; ++i) device.FailRead(EIO);
  device.Do([&] { device.open_errors = 5; });
  device.FailRead(EIO);
  device.Do([] {});
  KvoxBuffer buffer("tapout1", "/tapout1", 1, true,
                    {.io = device,
                     .io_log = log_,
                     .wiring = wiring_,
                     .capture_threads = capture_threads_,
                     .flight = flight_});
  ASSERT_EQ(buffer.Enable(true), 0);
  ASSERT_TRUE(WaitFor([&] { return buffer.gave_up(); }));
  EXPECT_TRUE(log_.WaitFor("tapout1 ioProcess end"));
  device.Do([&] { enabled.wait(); });
  EXPECT_EQ(buffer.Enable(true), 0);
  EXPECT_FALSE(buffer.gave_up());
  EXPECT_EQ(log_.Count("Enable buffer tapout1 (0 processors connected), I/O thread start"), 2u);
  enabled.count_down();
  EXPECT_EQ(buffer.Enable(false), 0);
  EXPECT_FALSE(buffer.gave_up());
}

TEST_F(KvoxBufferTest, ItsCaptureEndsWithIt) {
  auto buffer = MakeBuffer("inject1", 1, false);
  WavCapture& capture = buffer->capture();
  std::string message;
  ASSERT_EQ(capture.Start(directory_ / "a.wav", message), 0);
  buffer.reset();
  EXPECT_TRUE(WaitFor([&] { return capture_threads_.running() == 0; }));
  if (capture_threads_.running() > 0) capture.Abandon();  // its thread owns it
}

TEST(RxFormatCell, AStreamDoesNotOverwriteANewerCommand) {
  RxFormatCell cell;
  cell.Set({.sample_rate = 16000});
  cell.Adopt({.sample_rate = 48000}, 0);
  EXPECT_EQ(cell.Get().format.sample_rate, 16000u);
  cell.Adopt({.sample_rate = 48000}, cell.Get().serial);
  EXPECT_EQ(cell.Get().format.sample_rate, 48000u);
}

TEST(IoThreadCall, RunsOnTheCallersThreadOnceTheIoThreadHasEnded) {
  WakeEvent wake;
  IoThreadCall calls(wake);
  calls.End();
  bool ran = false;
  EXPECT_TRUE(calls.Run([&] { ran = true; }));
  EXPECT_TRUE(ran);
}

TEST_F(KvoxBufferTest, TheStreamCorrectsTheFormatThatACommandHasSet) {
  const KvoxTapFormat format = {.sample_rate = 48000, .channels = 2, .bytes_per_sample = 2};
  ASSERT_EQ(tapout_->Enable(true), 0);
  SendPacket(MakePacket(1, 1920, format));
  ASSERT_TRUE(YieldUntil([&] { return tapout_->RxFormat().sample_rate != 0; }));
  tapout_->SetRxFormat({.sample_rate = 16000, .channels = 1, .bytes_per_sample = 4});
  SendPacket(MakePacket(2, 1920, format));
  EXPECT_TRUE(log_.WaitFor("RX format change 16kHz 1ch"));
  tapout_->Enable(false);
  tapout_->Enable(true);
  EXPECT_EQ(tapout_->RxFormat().sample_rate, 0u);
}

TEST_F(KvoxBufferTest, ADumpShowsThePacketSentLastOrNothing) {
  ConnectChain(MakePassthrough());
  ASSERT_EQ(inject_->Enable(true), 0);
  ASSERT_EQ(tapout_->Enable(true), 0);
  SendPacket(MakePacket(1, 1920));
  ASSERT_EQ(ReceivePacket(kPacketHeaderSize + 1920), MakePacket(1, 1920));
  log_.Take();
  inject_->DumpBuffer(tapout_.get());
  EXPECT_EQ(log_.Count("I 00000000 : 4b766f78 00000001 "), 1u);

  SendPacket(Bytes(64));  // overwrites what was sent from the receive area
  ASSERT_TRUE(log_.WaitFor("skipping 64 bytes"));
  SendPacket(MakePacket(2, 1920));
  ASSERT_EQ(ReceivePacket(kPacketHeaderSize + 1920), MakePacket(2, 1920));
  SendPacket(Bytes(64));
  ASSERT_TRUE(log_.WaitFor("skipping 64 bytes", 2));
  log_.Take();
  inject_->DumpBuffer(tapout_.get());
  EXPECT_EQ(log_.Count("E inject0: the packet that was sent last is no longer there"), 1u);

  SendPacket(MakePacket(3, 1920));
  ASSERT_EQ(ReceivePacket(kPacketHeaderSize + 1920), MakePacket(3, 1920));
  tapout_->Enable(false);
  log_.Take();
  inject_->DumpBuffer(tapout_.get());
  EXPECT_EQ(log_.Count("I 00000000 : 4b766f78 00000001 "), 1u) << "kept past the thread's end";
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
