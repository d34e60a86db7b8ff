// A client that receives a relay's audio, and the thread that calls it. The thread waits for the
// client without limit; the I/O thread waits for the thread only for a bounded time. So a client
// can be slow, hang or die without delaying the audio.
#pragma once

#include <aidl/kvox/IKvox.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>

#include "kvox/common/thread_group.h"
#include "kvox/common/wake_event.h"
#include "processors/block.h"

namespace kvox {

using aidl::kvox::IKvox;

class RelayClient : public std::enable_shared_from_this<RelayClient> {
 public:
  /// The client and its thread, which ends after Stop(). `owner` is its owner in `threads`.
  /// `thread` is the number of the thread that calls the client before this one, 0 for none: where
  /// there is no room for another, it calls this client once its last call has returned. It becomes
  /// the number of this client's thread. Null when there is no thread, or no descriptor to wait on.
  static std::shared_ptr<RelayClient> Start(std::shared_ptr<IKvox::IReceiveAudioCallback> callback,
                                            ThreadGroup& threads, uint64_t owner, size_t& thread);

  explicit RelayClient(std::shared_ptr<IKvox::IReceiveAudioCallback> callback);

  /// Ends the thread once its current call has returned. Does not wait. Any thread.
  void Stop();

  bool Calls(const std::shared_ptr<IKvox::IReceiveAudioCallback>& callback) const {
    return callback != nullptr && callback_->asBinder() == callback->asBinder();
  }

  // RT, one I/O thread at a time.

  /// Where the next packet's `size` bytes (at most kPacketMaxPayload) go; empty while the client is
  /// busy.
  std::span<std::byte> Slot(size_t size);

  /// Delivers the slot's content, as a packet with the other fields of `shape`, and waits for the
  /// reply until `deadline_ns` at most.
  Delivery Deliver(const IKvox::AudioPacket& shape, IoWaiter& waiter, uint64_t deadline_ns);

 private:
  enum class State : uint8_t { kEmpty, kFull, kAccepted, kRefused };

  void Serve();

  const std::shared_ptr<IKvox::IReceiveAudioCallback> callback_;
  WakeEvent work_;      // for the thread: there is a packet, or it has to end
  WakeEvent returned_;  // for the I/O thread: the client has replied

  std::atomic<bool> stopping_ = false;

  // Owner of the packet: the thread while the state is kFull, else the I/O thread.
  std::atomic<State> state_ = State::kEmpty;
  IKvox::AudioPacket packet_;
};

}  // namespace kvox
