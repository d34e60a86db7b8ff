#include "bench/campaign/echo.h"

#include <android/binder_process.h>

#include <stdexcept>
#include <utility>

namespace kvox::campaign {
namespace {

constexpr uint32_t kThreads = 3;

}  // namespace

/// Sends from inside the callback, so that the block goes out in place of the one that came.
class Echoes::Client : public IKvox::BnReceiveAudioCallback {
 public:
  explicit Client(Echoes& echoes) : echoes_(echoes) {}

  ndk::ScopedAStatus ReceiveAudio(const IKvox::AudioPacket& packet) override {
    IKvox::CommandResult result;
    ++echoes_.blocks_;
    const bool sent = echoes_.kvox_->SendAudio(packet.processor_id, packet, &result).isOk();
    if (!sent || result.status != IKvox::CommandStatus::OK) ++echoes_.refused_;
    return ndk::ScopedAStatus::ok();
  }

 private:
  Echoes& echoes_;
};

Echoes::Echoes(std::shared_ptr<IKvox> kvox) : kvox_(std::move(kvox)) {
  ABinderProcess_setThreadPoolMaxThreadCount(kThreads);
  ABinderProcess_startThreadPool();
}

void Echoes::Register(FourCc relay) {
  clients_.push_back(ndk::SharedRefBase::make<Client>(*this));
  IKvox::CommandResult result;
  const bool delivered =
      kvox_->RegisterReceiveAudioCallback(static_cast<int32_t>(relay), clients_.back(), &result)
          .isOk();
  if (delivered && result.status == IKvox::CommandStatus::OK) return;
  throw std::runtime_error("no client can be registered with " + ToString(relay));
}

}  // namespace kvox::campaign
