// A daemon's objects as plain values. A name of "" means none.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kvox/common/device_names.h"

namespace kvox::client {

/// A tap point of the co-processor.
struct TapPoint {
  int core = 0;
  std::string code;  // four characters
  int index = 0;
  uint32_t sample_rate_hz = 0;
  uint32_t channels = 0;
  char encoding = '?';  // i: integer, f: float, v: mu-law, ?: unknown
  uint32_t bits = 0;    // of a sample
  uint32_t block_length_frames = 0;
  uint32_t noninterleaved_samples = 0;
  uint32_t jitter_buffer_frames = 0;
  std::string tapout = {};  // the buffer it streams into
  std::string inject = {};  // the buffer it takes audio from
  bool enabled = false;

  /// "imic.0"
  std::string Name() const { return code + "." + std::to_string(index); }
  /// "2:imic.0", which is unique
  std::string FullName() const { return std::to_string(core) + ":" + Name(); }
};

/// Parameters of a processor.
struct Settings {
  bool passthrough_mode = false;
  bool test_mode = false;
  int32_t block_length_frames = 0;
  int32_t jitter_buffer_frames = 0;
  int32_t channels = 0;
};

struct Processor {
  std::string id = {};      // four characters
  std::string type = {};    // four characters
  std::string input = {};   // a tap-out buffer
  std::string output = {};  // an inject buffer
  bool enabled = false;
  std::optional<Settings> settings = {};  // where they were queried
};

enum class Direction { kTapOut, kInject };

/// "tap-out" or "inject"
inline const char* NameOf(Direction direction) {
  return direction == Direction::kTapOut ? "tap-out" : "inject";
}

/// What the names of its buffers start with: "tapout" or "inject".
inline std::string_view BufferPrefix(Direction direction) {
  return direction == Direction::kTapOut ? kTapOutBufferPrefix : kInjectBufferPrefix;
}

struct Buffer {
  int id = 0;
  std::string name;
  Direction direction = Direction::kTapOut;
  std::string producer = {};                // the processor that writes it
  std::vector<std::string> consumers = {};  // the processors that read it
  bool enabled = false;
  bool gave_up = false;  // enabled, but its device failed for good
};

/// A line of the graph: audio from a tap point through a processor to a tap point.
struct Path {
  std::string source;  // "imic.0"
  bool source_enabled = false;
  std::string tapout = {};
  std::string processor;
  bool processor_enabled = false;
  std::string inject = {};
  std::string sink;
  bool sink_enabled = false;
};

/// A chain of audio that is wanted.
struct Route {
  std::string source;     // a tap point or a tap-out buffer
  std::string processor;  // four characters; is made where there is none
  std::string sink = {};  // a tap point or an inject buffer; "" for none
  std::string type = {};  // of a processor that is made; "": it is named after its type
};

struct UseCase {
  std::string name;
  std::optional<bool> enabled;  // none where the daemon does not say
};

}  // namespace kvox::client
