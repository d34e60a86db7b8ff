// Binary messages with audio. docs/web-api.md describes them. Pure.
#pragma once

#include <cstdint>
#include <string>

#include "web/server/watcher.h"

namespace kvox::web {

inline constexpr size_t kAudioHeader = 48;

/// Appends a record of a block: a header of kAudioHeader bytes, then the samples as they came.
void AppendAudio(uint32_t point, const Heard& heard, std::string& message);

}  // namespace kvox::web
