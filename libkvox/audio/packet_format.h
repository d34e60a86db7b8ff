// The codes of an AudioPacket as a format. Any thread.
#pragma once

#include <aidl/kvox/IKvox.h>

#include <cstdint>
#include <optional>

#include "kvox/common/sound_format.h"

namespace kvox::client {

/// The format that a packet's codes name; none when they name none.
std::optional<SoundFormat> FormatOf(const aidl::kvox::IKvox::AudioPacket& packet);

/// The duration of a packet's audio, in nanoseconds; 0 when it holds no whole frame or its format
/// is unknown.
int64_t BlockNs(const aidl::kvox::IKvox::AudioPacket& packet);

/// So many frames, in nanoseconds.
int64_t DurationNs(uint64_t frames, uint32_t sample_rate);

}  // namespace kvox::client
