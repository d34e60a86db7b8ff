#include "libkvox/audio/relay_client.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "kvox/common/kvox_utils.h"
#include "libkvox/model/lookup.h"

namespace kvox::client {
namespace {

constexpr uint64_t kNsPerSecond = 1'000'000'000;
constexpr uint64_t kGiveUpAfterNs = 30 * kNsPerSecond;  // without any audio
constexpr std::chrono::seconds kLongestAbsence{30};     // of the daemon
constexpr uint64_t kEndAfterNs = 5 * kNsPerSecond;      // without further audio
constexpr uint64_t kTryEveryNs = kNsPerSecond / 5;
constexpr uint64_t kRefreshEveryNs = kNsPerSecond;  // longer than any block
constexpr uint64_t kFirstRefreshNs = kNsPerSecond / 20;
constexpr uint64_t kLongestDeliveryNs = kNsPerSecond / 50;
constexpr int8_t k16Bits = 1;

/// For a daemon that may hang: whoever waits here wants to see an interrupt, or to end.
constexpr std::chrono::milliseconds kPatience{2000};

}  // namespace

RelayClient::RelayClient(Daemon& daemon, std::string point, Use use, OnBlock on_block)
    : daemon_(daemon), point_(std::move(point)), use_(use), on_block_(std::move(on_block)) {
  ServeCallbacks();
  Connect();
}

RelayClient::~RelayClient() {
  try {
    Leave();
  } catch (const Failure&) {
    // The daemon finds out that we are gone.
  }
}

void RelayClient::Leave() {
  left_ = true;
  if (!probe_) return;
  const CallLimit limit(kPatience);
  std::optional<Failure> failed;
  try {
    // Not once the relay has dropped us: that would end the other client's audio.
    if (!registered_.expired()) Register(nullptr);
  } catch (const Failure& failure) {
    failed = failure;
    probe_->Forget();
  }
  probe_.reset();
  if (failed) throw *failed;
}

void RelayClient::Register(const std::shared_ptr<IKvox::IReceiveAudioCallback>& callback) {
  const auto result = daemon_.Call("RegisterReceiveAudioCallback",
                                   &IKvox::RegisterReceiveAudioCallback, CodeOf(relay()), callback);
  if (result.status == IKvox::CommandStatus::OK) return;
  throw Failure(kRefused,
                "there is no processor " + relay() + "; 'kvoxctl processor list' shows all");
}

void RelayClient::Connect() {
  auto probe = std::make_unique<Probe>(daemon_, point_, use_, lost_);
  lost_.reset();
  kvox_ = daemon_.kvox();
  const auto settling = probe->temporary() ? std::make_shared<Settling>() : nullptr;
  std::shared_ptr<IKvox::IReceiveAudioCallback> callback = ndk::SharedRefBase::make<AudioCallback>(
      [on_block = on_block_, kvox = kvox_, connection = connections_ + 1, last_ns = last_block_ns_,
       settling](const IKvox::AudioPacket& packet) {
        const uint64_t now_ns = GetTimestampNs();
        const bool settled =
            !settling || packet.bitsPerSample == k16Bits || now_ns >= settling->end_ns;
        if (settled) {
          *last_ns = now_ns;
        } else {
          settling->has_begun = true;
        }
        on_block({packet, kvox, connection, settled});
        return true;
      });
  probe_ = std::move(probe);
  settling_ = settling;
  try {
    Register(callback);
  } catch (const Failure&) {
    probe_.reset();
    throw;
  }
  registered_ = callback;
  ++connections_;
  tried_ns_ = 0;
  refresh_after_ns_ = kFirstRefreshNs;
  since_ns_ = GetTimestampNs();
}

void RelayClient::Reconnect(uint64_t now_ns) {
  if (now_ns - tried_ns_ < kTryEveryNs) return;
  tried_ns_ = now_ns;
  try {
    if (!daemon_.alive()) daemon_.Disconnect();
    Connect();
  } catch (const Failure& failure) {
    const auto longest = std::min<std::chrono::nanoseconds>(kLongestAbsence, daemon_.wait());
    if (GetTimestampNs() - since_ns_ < static_cast<uint64_t>(longest.count())) return;
    throw Failure(kNoDaemon, std::string("kvoxd has gone, and ") + point_ +
                                 " has not come back in time: " + failure.what());
  }
}

/// Whether the stream's device has gone, which a restart of the co-processor brings back.
bool RelayClient::DeviceIsAway() {
  try {
    const auto buffers = QueryBuffers(daemon_, Direction::kTapOut).rows;
    return FindBuffer(buffers, stream()) == nullptr;
  } catch (const Failure&) {
    return true;
  }
}

void RelayClient::Tend() {
  const uint64_t now_ns = GetTimestampNs();
  if (left_) throw Failure(kGaps, point_ + " was left; begin anew");
  const CallLimit limit(kPatience);
  if (!connected()) return Reconnect(now_ns);
  const auto callback = registered_.lock();  // before the next line: a dead daemon drops it, too
  if (!AIBinder_isAlive(kvox_->asBinder().get())) {
    lost_ = probe_->Forget();
    probe_.reset();
    since_ns_ = now_ns;
    return;
  }
  if (!callback) {
    throw Failure(kGaps, relay() +
                             " has dropped this client: another one took it over, or it was "
                             "deleted; 'kvoxctl processor list' shows whether it exists");
  }
  const uint64_t last_ns = *last_block_ns_;
  const uint64_t silent_ns = now_ns - std::min(now_ns, std::max(last_ns, since_ns_));
  if (last_ns > since_ns_) refresh_after_ns_ = kRefreshEveryNs;
  const bool silent = silent_ns > refresh_after_ns_ && now_ns - tried_ns_ > refresh_after_ns_;
  const bool settles = settling_ && settling_->has_begun && settling_->end_ns == UINT64_MAX;
  if (silent || settles) {
    tried_ns_ = now_ns;
    refresh_after_ns_ = std::min(2 * refresh_after_ns_, kRefreshEveryNs);
    probe_->Refresh();
    if (settles) settling_->end_ns = GetTimestampNs() + kLongestDeliveryNs;
  }
  if (last_ns == 0 && silent_ns > kGiveUpAfterNs) {
    throw Failure(kRefused,
                  "no audio came from " + point_ + "; gave up; 'kvoxctl graph' shows its path");
  }
  if (last_ns == 0 || silent_ns < kEndAfterNs) return;
  if (silent_ns < kGiveUpAfterNs && DeviceIsAway()) return;
  throw Failure(kGaps, "no more audio comes from " + point_ +
                           ": it was disabled or disconnected, or its tap point or I/O was "
                           "stopped; 'kvoxctl graph' shows its path");
}

}  // namespace kvox::client
