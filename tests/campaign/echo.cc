#include "tests/campaign/echo.h"

#include <android/binder_process.h>

#include <mutex>
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
    const std::lock_guard lock(mutex_);
    if (has_left_) return ndk::ScopedAStatus::ok();
    IKvox::CommandResult result;
    ++echoes_.blocks_;
    const bool sent = echoes_.kvox_->SendAudio(packet.processor_id, packet, &result).isOk();
    if (!sent || result.status != IKvox::CommandStatus::OK) ++echoes_.refused_;
    return ndk::ScopedAStatus::ok();
  }

  /// The daemon may keep this longer than there is somebody to work for.
  void Leave() {
    const std::lock_guard lock(mutex_);
    has_left_ = true;
  }

 private:
  std::mutex mutex_;
  bool has_left_ = false;
  Echoes& echoes_;  // until it has left
};

Echoes::Echoes(std::shared_ptr<IKvox> kvox) : kvox_(std::move(kvox)) {
  ABinderProcess_setThreadPoolMaxThreadCount(kThreads);
  ABinderProcess_startThreadPool();
}

Echoes::~Echoes() {
  for (const auto& client : clients_) client->Leave();
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
