// A client that receives a relay's audio, and the thread that calls it. The thread waits for the
// client as long as that takes; the I/O thread waits for the thread a bounded time only, so a
// client can be slow, hang or die without holding the audio up.
#pragma once

#include <aidl/kvox/IKvox.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>

#include "kvox/common/wake_event.h"
#include "processors/block.h"
#include "processors/thread_reaper.h"

namespace kvox {

using aidl::kvox::IKvox;

class RelayClient : public std::enable_shared_from_this<RelayClient> {
 public:
  enum class Answer {
    kAccepted,
    kRefused,  // also by a client that has died
    kLate,     // no answer in time; what it answers later is not heard
    kBusy,     // still with an earlier block: this one was not handed over
    kGivenUp,  // the I/O thread was needed elsewhere
  };

  /// The client and its thread, which ends by itself after Stop() and counts among those of
  /// `share`. Null when there is no thread, or nothing to wait on, to be had.
  static std::shared_ptr<RelayClient> Start(std::shared_ptr<IKvox::IReceiveAudioCallback> callback,
                                            ThreadReaper& reaper, uint64_t share);

  explicit RelayClient(std::shared_ptr<IKvox::IReceiveAudioCallback> callback);

  /// Ends the thread once the call it is in has returned. Waits for nothing. Any thread.
  void Stop();

  bool Calls(const std::shared_ptr<IKvox::IReceiveAudioCallback>& callback) const {
    return callback != nullptr && callback_->asBinder() == callback->asBinder();
  }

  // RT, one I/O thread at a time.

  /// Where the next packet's `size` bytes (at most kPacketMaxPayload) go; empty while the client is
  /// busy.
  std::span<std::byte> Slot(size_t size);

  /// Hands the slot's content over, as a packet with the other fields of `shape`, and waits for the
  /// answer until `deadline_ns` at most.
  Answer Deliver(const IKvox::AudioPacket& shape, RtWaiter& waiter, uint64_t deadline_ns);

 private:
  enum class State : uint8_t { kEmpty, kFull, kAccepted, kRefused };

  void Serve();

  const std::shared_ptr<IKvox::IReceiveAudioCallback> callback_;
  WakeEvent work_;      // for the thread: there is a packet, or it has to end
  WakeEvent answered_;  // for the I/O thread

  std::atomic<bool> stopping_ = false;

  // Whose the packet is: the thread's while the state is kFull, else the I/O thread's.
  std::atomic<State> state_ = State::kEmpty;
  IKvox::AudioPacket packet_;
};

}  // namespace kvox
