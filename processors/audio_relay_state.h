// The state that commands prepare for a relay's blocks. Private to AudioRelayProcessor.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include "kvox/common/byte_budget.h"
#include "processors/block.h"
#include "processors/relay_client.h"
#include "processors/sent_audio.h"

namespace kvox {

inline constexpr uint32_t kRelaySampleRate = 48000;  // Hz, the only one a relay runs at

/// No transaction can carry a larger block.
inline constexpr size_t kMaxSentBlock = 1u << 20;

/// A started relay's format, and the audio that its client has sent.
struct RelayStream {
  RelayStream(const IKvox::AudioPacket& packet_shape, uint32_t frames, uint32_t bits,
              ByteBudget& budget)
      : shape(packet_shape),
        block_length(frames),
        bytes_per_sample(bits / 8),
        block_size(size_t{frames} * bytes_per_sample * channels()),
        sent(block_size <= kMaxSentBlock ? block_size : 0, budget) {}

  uint32_t channels() const { return static_cast<uint8_t>(shape.numChannels); }

  const IKvox::AudioPacket shape;  // id and format codes of every packet, in both directions
  const uint32_t block_length;     // frames
  const uint32_t bytes_per_sample;
  const size_t block_size;  // bytes
  SentAudio sent;
};

struct RelayState : BlockState {
  RelayState(std::shared_ptr<RelayStream> with_stream, std::shared_ptr<RelayClient> with_client)
      : stream(std::move(with_stream)), client(std::move(with_client)) {}

  const std::shared_ptr<RelayStream> stream;  // null before the first start
  const std::shared_ptr<RelayClient> client;  // null for none
};

}  // namespace kvox
