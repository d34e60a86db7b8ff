// A client of the relay at a point: registers, notices when the daemon dies or the relay drops it,
// and comes back after the daemon. One thread, apart from what the callback does.
#pragma once

#include <aidl/kvox/IKvox.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "libkvox/calls/daemon.h"
#include "libkvox/graph/probe.h"

namespace kvox::client {

class RelayClient {
 public:
  struct Delivery {
    const IKvox::AudioPacket& packet;
    const std::shared_ptr<IKvox>& kvox;
    int connection;  // 1 for the first
    bool settled;    // else it counts, but its samples may have been taken for another type
  };
  /// A block has come. On the thread that serves the daemon, which waits half a block for it.
  using OnBlock = std::function<void(const Delivery&)>;

  /// Registers. Throws Failure. The daemon outlives this object; `on_block` may be called for a
  /// moment after it, so it owns what it uses.
  RelayClient(Daemon& daemon, std::string point, Use use, OnBlock on_block);

  /// Leaves, if that has not been done; failures are ignored.
  ~RelayClient();
  RelayClient(const RelayClient&) = delete;
  RelayClient& operator=(const RelayClient&) = delete;

  /// Unregisters and takes down what was made, so that the relay's use case stays: the death of a
  /// registered client would end it. Waits for two seconds at most. Throws Failure.
  void Leave();

  /// To be called several times a second. Connects again when the daemon has died and is back.
  /// Throws Failure when the audio is over: the relay has another client or is gone (kGaps), no
  /// audio comes any more (kGaps) or none has come at all (kRefused), or the daemon stays away
  /// (kNoDaemon), or after Leave() (kGaps).
  void Tend();

  const std::string& point() const { return point_; }
  /// The relay, and the tap-out buffer that it reads; valid while connected().
  const std::string& relay() const { return probe_->relay(); }
  const std::string& stream() const { return probe_->stream(); }
  bool connected() const { return probe_ != nullptr; }

  /// How often it has connected.
  int connections() const { return connections_; }
  bool flows() const { return *last_block_ns_ != 0; }

 private:
  /// A relay that is connected before its stream's first packet takes samples of 8 or 32 bits for
  /// integers. A temporary one is refreshed once there is a packet.
  struct Settling {
    std::atomic<bool> has_begun = false;
    std::atomic<uint64_t> end_ns = UINT64_MAX;
  };

  void Connect();
  void Reconnect(uint64_t now_ns);
  void Register(const std::shared_ptr<IKvox::IReceiveAudioCallback>& callback);
  bool DeviceIsAway();

  Daemon& daemon_;
  const std::string point_;
  const Use use_;
  const OnBlock on_block_;
  std::shared_ptr<IKvox> kvox_;                             // that it is registered with
  std::unique_ptr<Probe> probe_;                            // null while the daemon is away
  std::optional<Made> lost_;                                // with a daemon that died
  std::weak_ptr<IKvox::IReceiveAudioCallback> registered_;  // only the relay holds it
  int connections_ = 0;
  bool left_ = false;
  uint64_t since_ns_ = 0;          // when it was connected, or the daemon went
  uint64_t tried_ns_ = 0;          // to connect, or to refresh
  uint64_t refresh_after_ns_ = 0;  // of silence; short while nothing has come
  /// When the last block came; 0 before the first. Outlives a callback that is still running.
  const std::shared_ptr<std::atomic<uint64_t>> last_block_ns_ =
      std::make_shared<std::atomic<uint64_t>>(0);
  std::shared_ptr<Settling> settling_;  // of a temporary relay
};

}  // namespace kvox::client
