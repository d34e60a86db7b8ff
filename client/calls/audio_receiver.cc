#include "client/calls/audio_receiver.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "client/system/files.h"
#include "kvox/common/log.h"

namespace kvox::client {
namespace {

constexpr auto kAlivePoll = std::chrono::milliseconds(50);

}  // namespace

std::shared_ptr<AudioReceiver> AudioReceiver::Create(const std::string& path, bool reject) {
  return ndk::SharedRefBase::make<AudioReceiver>(OpenToAppend(path), reject);
}

bool AudioReceiver::Wait(const ndk::SpAIBinder& binder, float seconds) {
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
  if (!failed_ && !WriteAll(file_.get(), packet.data.data(), packet.data.size())) {
    failed_ = true;
    LogError("FILE: cannot write on: %s; packets are refused from now on", std::strerror(errno));
  }
  if (reject_ || failed_) return ndk::ScopedAStatus::fromExceptionCode(EX_ILLEGAL_STATE);
  return ndk::ScopedAStatus::ok();
}

}  // namespace kvox::client
