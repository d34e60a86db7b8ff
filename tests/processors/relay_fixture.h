// A relay with a client in the same process, and a clock that the test sets.
#pragma once

#include <aidl/kvox/BnKvox.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <span>
#include <vector>

#include "kvox/common/mutex.h"
#include "processors/audio_relay_processor.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"

namespace kvox {

/// Waits instead of the I/O thread, with a clock of its own: a busy machine does not matter.
class Waiter : public IoWaiter {
 public:
  bool WaitWritable(int, uint64_t) override { return false; }
  bool WaitReadable(int fd, uint64_t deadline_ns) override {
    if (now_ns >= deadline_ns) return false;
    if (spurious-- > 0) return true;
    asked_ms = static_cast<int>((deadline_ns - now_ns) / 1'000'000);
    pollfd event{.fd = fd, .events = POLLIN, .revents = 0};
    if (patient) return poll(&event, 1, 10'000) == 1;
    now_ns = deadline_ns;
    return false;
  }
  uint64_t NowNs() override { return now_ns; }

  bool patient = true;
  int spurious = 0;  // wakes for nothing that come first
  int asked_ms = 0;
  uint64_t now_ns = 1'000'000'000'000;
};

/// A client that keeps what it gets; it may refuse, or hang until it is released.
class Client : public IKvox::BnReceiveAudioCallback {
 public:
  ndk::ScopedAStatus ReceiveAudio(const IKvox::AudioPacket& packet) override {
    {
      MutexLock lock(mutex_);
      packets_.push_back(packet);
    }
    hanging.wait(true);
    EXPECT_EQ(packet, Packets().back()) << "it is the client's until it returns";
    return refusing ? ndk::ScopedAStatus::fromExceptionCode(EX_ILLEGAL_STATE)
                    : ndk::ScopedAStatus::ok();
  }
  std::vector<IKvox::AudioPacket> Packets() {
    MutexLock lock(mutex_);
    return packets_;
  }

  void Release() {
    hanging = false;
    hanging.notify_all();
  }

  std::atomic<bool> hanging = false;
  std::atomic<bool> refusing = false;

 private:
  Mutex mutex_;
  std::vector<IKvox::AudioPacket> packets_ GUARDED_BY(mutex_);
};

class RelayTest : public ::testing::Test, public ProcessorHost {
 protected:
  static constexpr uint32_t kFrames = 480;
  static constexpr size_t kMaxThreads = 4;

  /// Also after a failure: threads_ waits for the clients.
  void TearDown() override {
    for (const auto& client : clients_) client->Release();
    EXPECT_TRUE(WaitFor([&] { return threads_->running() == 0; }));
    if (threads_->running() > 0) static_cast<void>(threads_.release());
  }

  /// An enabled relay with blocks of 480 frames.
  std::shared_ptr<AudioRelayProcessor> Relay(FourCc id) {
    auto relay = AudioRelayProcessor::Create(id, *this);
    SetBlockLength(*relay, kFrames);
    EXPECT_EQ(relay->Enable(true), 0);
    log_.Take();
    return relay;
  }

  static int32_t SetBlockLength(AudioRelayProcessor& relay, int32_t frames, bool taken = true) {
    return relay.SetParameter(IKvox::ParameterId::BLOCK_LENGTH, 0, frames,
                              [=](IKvox::ParameterId, uint32_t) { return taken; });
  }

  std::shared_ptr<Client> Register(AudioRelayProcessor& relay) {
    auto client = clients_.emplace_back(ndk::SharedRefBase::make<Client>());
    relay.RegisterReceiveAudioCallback(client);
    log_.Take();
    return client;
  }

  static IKvox::AudioPacket Packet(FourCc id, std::vector<uint8_t> data, int8_t format, int8_t bits,
                                   int8_t channels, int8_t rate = 5) {
    IKvox::AudioPacket packet;
    packet.processor_id = static_cast<int32_t>(id);
    packet.data = std::move(data);
    packet.sampleRate = rate;
    packet.format = format;
    packet.bitsPerSample = bits;
    packet.numChannels = channels;
    return packet;
  }
  static IKvox::AudioPacket CallPacket(uint8_t fill) {
    return Packet(kDownlink, std::vector<uint8_t>(kFrames * 2, fill), 0, 1, 1);
  }

  /// Sends a block through the processor; out_ is what the inject buffer gets.
  int32_t Process(AudioRelayProcessor& relay, std::span<const std::byte> in,
                  const KvoxTapFormat& format, bool connected = true) {
    const auto state = relay.block_state();
    out_.assign(in.size(), std::byte{0x77});
    OutputArea area(out_);
    const Block block = {.audio = in,
                         .format = format,
                         .arrived_ns = waiter_.NowNs() - age_ns_,
                         .begin_ns = waiter_.NowNs(),
                         .connected = connected,
                         .state = state.get(),
                         .waiter = waiter_};
    const BlockResult result = relay.ProcessBlock(block, connected ? &area : nullptr);
    area.Data();
    return result.status;
  }

  bool OutputIsSilent() const {
    return std::all_of(out_.begin(), out_.end(), [](std::byte b) { return b == std::byte{0}; });
  }

  static constexpr FourCc kDownlink = MakeFourCc("art0");
  static constexpr FourCc kMedia = MakeFourCc("armd");
  static constexpr KvoxTapFormat kCallTap = {
      .sample_rate = 48000, .channels = 2, .bytes_per_sample = 2, .noninterleaved_samples = 480};

  LogCapture log_;
  Waiter waiter_;
  std::vector<std::byte> out_;
  std::vector<FourCc> disabled_;
  uint64_t age_ns_ = 0;  // of a block when its turn comes
  ByteBudget budget_{1u << 20};

 private:
  std::vector<std::shared_ptr<Client>> clients_;

  void BlockStateChanged(const KvoxProcessor&) override {}
  void EndUseCaseOf(std::shared_ptr<const KvoxProcessor> relay) override {
    disabled_.push_back(relay->id());
  }
  ThreadGroup& client_threads() override { return *threads_; }
  ByteBudget& sent_audio_budget() override { return budget_; }

  std::unique_ptr<ThreadGroup> threads_ = std::make_unique<ThreadGroup>(kMaxThreads);
};

}  // namespace kvox
