#include "processors/relay_client.h"

#include <utility>

#include "kvox/common/kvox_packet.h"

namespace kvox {

std::shared_ptr<RelayClient> RelayClient::Start(
    std::shared_ptr<IKvox::IReceiveAudioCallback> callback, ThreadGroup& threads, uint64_t owner,
    size_t& thread) {
  auto client = std::make_shared<RelayClient>(std::move(callback));
  if (client->work_.fd() < 0 || client->returned_.fd() < 0) return nullptr;
  const size_t number = threads.Start(
      "kvox-client", [client] { client->Serve(); }, owner, thread);
  if (number == 0) return nullptr;
  thread = number;
  return client;
}

RelayClient::RelayClient(std::shared_ptr<IKvox::IReceiveAudioCallback> callback)
    : callback_(std::move(callback)) {
  packet_.data.reserve(kPacketMaxPayload);
}

void RelayClient::Stop() {
  stopping_.store(true, std::memory_order_relaxed);
  work_.Signal();
}

std::span<std::byte> RelayClient::Slot(size_t size) {
  // Acquire: the thread has done with the packet.
  if (state_.load(std::memory_order_acquire) == State::kFull) return {};
  packet_.data.resize(size);  // within what is reserved
  return std::as_writable_bytes(std::span<uint8_t>(packet_.data));
}

Delivery RelayClient::Deliver(const IKvox::AudioPacket& shape, IoWaiter& waiter,
                              uint64_t deadline_ns) {
  if (state_.load(std::memory_order_acquire) == State::kFull) return Delivery::kBusy;
  packet_.processor_id = shape.processor_id;
  packet_.sampleRate = shape.sampleRate;
  packet_.format = shape.format;
  packet_.bitsPerSample = shape.bitsPerSample;
  packet_.numChannels = shape.numChannels;
  returned_.Clear();  // from a reply that came too late
  // Release: the thread sees the packet.
  state_.store(State::kFull, std::memory_order_release);
  work_.Signal();
  // The signal may still be that of a late reply: what counts is the state.
  while (state_.load(std::memory_order_acquire) == State::kFull &&
         waiter.WaitReadable(returned_.fd(), deadline_ns)) {
    returned_.Clear();
  }
  switch (state_.load(std::memory_order_acquire)) {
    case State::kAccepted:
      return Delivery::kAccepted;
    case State::kRefused:
      return Delivery::kRefused;
    default:
      return waiter.NowNs() >= deadline_ns ? Delivery::kLate : Delivery::kInterrupted;
  }
}

void RelayClient::Serve() {
  while (!stopping_.load(std::memory_order_relaxed)) {
    work_.Wait();
    work_.Clear();
    // Acquire: we see the packet.
    if (state_.load(std::memory_order_acquire) != State::kFull) continue;
    if (stopping_.load(std::memory_order_relaxed)) break;
    const bool accepted = callback_->ReceiveAudio(packet_).isOk();
    // Release: the I/O thread may fill the packet again.
    state_.store(accepted ? State::kAccepted : State::kRefused, std::memory_order_release);
    returned_.Signal();
  }
}

}  // namespace kvox
