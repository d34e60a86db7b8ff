// Tests what the packet path never does: counts every allocation of the I/O thread and every mutex
// that it takes, while both its buffers are captured. A separate program because it replaces
// malloc, as the sanitizers do.

#include <aidl/kvox/BnKvox.h>
#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cstdlib>

#include "kvox/common/log_ring.h"
#include "processors/audio_relay_processor.h"
#include "tests/buffer/buffer_fixture.h"

namespace {

thread_local bool counted = false;  // on the I/O thread, once it has warmed up
std::atomic<int> allocations = 0;
std::atomic<int> locks = 0;

}  // namespace

extern "C" {
void* __libc_malloc(size_t size);

void* malloc(size_t size) {
  if (counted) ++allocations;
  return __libc_malloc(size);
}

int pthread_mutex_lock(pthread_mutex_t* mutex) {
  using Function = int (*)(pthread_mutex_t*);
  static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
  if (counted) ++locks;
  return real(mutex);
}
}

namespace kvox {
namespace {

constexpr int kWarmUp = 100;
constexpr int kPackets = 5000;

/// A packet that holds less than a frame can be captured and is not timed, however busy the
/// machine.
constexpr uint32_t kPayload = 1000;
constexpr KvoxTapFormat kFormat = {.sample_rate = 48000, .channels = 255, .bytes_per_sample = 4};

/// Passes audio on, and makes the thread that it runs on the one that is counted.
class WatchedProcessor : public PassthruProcessor {
 public:
  using PassthruProcessor::PassthruProcessor;
  BlockResult ProcessBlock(const Block& block, OutputArea* out) override {
    counted = ++blocks > kWarmUp;
    return PassthruProcessor::ProcessBlock(block, out);
  }
  int blocks = 0;
};

/// A relay to a client that takes every block, as far as its thread can keep up.
class Relay : public ProcessorHost {
 public:
  Relay() {
    processor->SetFormat(kFormat);
    processor->Enable(true);
    processor->RegisterReceiveAudioCallback(client);
  }

 private:
  struct Client : IKvox::BnReceiveAudioCallback {
    ndk::ScopedAStatus ReceiveAudio(const IKvox::AudioPacket&) override {
      ++blocks;
      return ndk::ScopedAStatus::ok();
    }
    std::atomic<int> blocks = 0;
  };
  void BlockStateChanged(const KvoxProcessor&) override {}
  void EndUseCaseOf(std::shared_ptr<const KvoxProcessor>) override {}
  ThreadGroup& client_threads() override { return threads_; }
  ByteBudget& sent_audio_budget() override { return budget_; }

  ThreadGroup threads_{1};
  ByteBudget budget_{1u << 20};

 public:
  const std::shared_ptr<Client> client = ndk::SharedRefBase::make<Client>();
  const std::shared_ptr<AudioRelayProcessor> processor =
      AudioRelayProcessor::Create(MakeFourCc("rely"), *this);
};

class RealtimeTest : public BufferFixture {
 protected:
  LogTarget& io_log() override { return deferred_log_; }

 private:
  DeferredLog deferred_log_{log_};
};

TEST_F(RealtimeTest, ThePacketPathNeitherAllocatesNorLocks) {
  const auto tapout = MakeBuffer("tapout0", 0, true);
  const auto inject = MakeBuffer("inject0", 0, false);
  const auto processor =
      std::make_shared<WatchedProcessor>(MakeFourCc("pass"), PassthruProcessor::kType);
  processor->stats().SetBufferSize(100);
  processor->Enable(true);
  const Relay relay;
  wiring_.Connect(tapout, {processor, relay.processor}, inject);
  for (const auto& buffer : {inject, tapout}) {
    std::string message;
    ASSERT_EQ(buffer->capture().Start(directory_ / (buffer->name() + ".wav"), message), 0)
        << message;
    ASSERT_EQ(buffer->Enable(true), 0);
  }
  const void* volatile proof = malloc(1);  // the replacement is in place
  counted = true;
  free(const_cast<void*>(proof));
  free(malloc(1));
  counted = false;
  ASSERT_EQ(allocations, 1);
  allocations = 0;
  for (uint32_t number = 1; number <= kPackets; ++number) {
    SendPacket(MakePacket(number, kPayload, kFormat));
    ASSERT_EQ(ReceivePacket(kPacketHeaderSize + kPayload).size(), kPacketHeaderSize + kPayload);
  }
  EXPECT_EQ(allocations, 0);
  EXPECT_EQ(locks, 0);
  EXPECT_EQ(processor->blocks, kPackets);
  EXPECT_GT(relay.client->blocks, 0);
  for (const auto& buffer : {inject, tapout}) {
    std::string message;
    EXPECT_EQ(buffer->capture().Stop(message), 0) << message;
    EXPECT_GT(std::filesystem::file_size(directory_ / (buffer->name() + ".wav")), 44 + kPayload);
  }
  tapout->Drop();
  inject->Drop();
  wiring_.Connect(tapout, {}, nullptr);  // releases the relay
}

}  // namespace
}  // namespace kvox
