#include "tests/campaign/loopback_clients.h"

#include <android/binder_process.h>

#include <stdexcept>
#include <utility>

#include "kvox/common/mutex.h"

namespace kvox::campaign {
namespace {

constexpr uint32_t kThreads = 3;

}  // namespace

/// Sends from inside the callback, so that the block replaces the received one.
class LoopbackClients::Client : public IKvox::BnReceiveAudioCallback {
 public:
  explicit Client(std::shared_ptr<IKvox> kvox) : kvox_(std::move(kvox)) {}

  ndk::ScopedAStatus ReceiveAudio(const IKvox::AudioPacket& packet) override {
    MutexLock lock(mutex_);
    IKvox::CommandResult ignored;
    if (kvox_) static_cast<void>(kvox_->SendAudio(packet.processor_id, packet, &ignored));
    return ndk::ScopedAStatus::ok();
  }

  /// The daemon may keep this object longer.
  void Leave() {
    MutexLock lock(mutex_);
    kvox_.reset();
  }

 private:
  Mutex mutex_;
  std::shared_ptr<IKvox> kvox_ GUARDED_BY(mutex_);
};

LoopbackClients::LoopbackClients(std::shared_ptr<IKvox> kvox) : kvox_(std::move(kvox)) {
  ABinderProcess_setThreadPoolMaxThreadCount(kThreads);
  ABinderProcess_startThreadPool();
}

LoopbackClients::~LoopbackClients() {
  for (const auto& client : clients_) client->Leave();
}

void LoopbackClients::Register(FourCc relay) {
  clients_.push_back(ndk::SharedRefBase::make<Client>(kvox_));
  IKvox::CommandResult result;
  const bool delivered =
      kvox_->RegisterReceiveAudioCallback(static_cast<int32_t>(relay), clients_.back(), &result)
          .isOk();
  if (delivered && result.status == IKvox::CommandStatus::OK) return;
  throw std::runtime_error("no client can be registered with " + ToString(relay));
}

}  // namespace kvox::campaign
