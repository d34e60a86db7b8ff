#include "client/audio_receiver.h"

#include <android/binder_process.h>

#include <chrono>
#include <thread>
#include <utility>

namespace kvox::client {
namespace {

constexpr auto kAlivePoll = std::chrono::milliseconds(50);

}  // namespace

std::shared_ptr<AudioReceiver> AudioReceiver::Create(const std::string& path, bool reject) {
  std::ofstream file(path, std::ios::binary | std::ios::app);
  if (!file) return nullptr;
  return ndk::SharedRefBase::make<AudioReceiver>(std::move(file), reject);
}

void AudioReceiver::StartServing() {
  ABinderProcess_setThreadPoolMaxThreadCount(1);
  ABinderProcess_startThreadPool();
}

bool AudioReceiver::Stay(const ndk::SpAIBinder& binder, float seconds) {
  using Clock = std::chrono::steady_clock;
  const auto until = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                        std::chrono::duration<float>(seconds));
  while (Clock::now() < until) {
    if (!AIBinder_isAlive(binder.get())) return false;
    std::this_thread::sleep_for(std::min<Clock::duration>(kAlivePoll, until - Clock::now()));
  }
  return true;
}

ndk::ScopedAStatus AudioReceiver::ReceiveAudio(const IKvox::AudioPacket& packet) {
  file_.write(reinterpret_cast<const char*>(packet.data.data()),
              static_cast<std::streamsize>(packet.data.size()));
  file_.flush();
  if (reject_ || !file_) return ndk::ScopedAStatus::fromExceptionCode(EX_ILLEGAL_STATE);
  return ndk::ScopedAStatus::ok();
}

}  // namespace kvox::client
