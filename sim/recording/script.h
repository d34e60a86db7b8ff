// What a recording holds, sorted for a replay: what the co-processor did and when, and what the
// daemon sent. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "sim/recording/node_record.h"
#include "sim/scenario/scenario.h"

namespace kvox::sim {

/// Bytes as one read or write has passed them. Where the audio was left out of the recording, they
/// are the beginning of `length`.
struct Piece {
  std::vector<std::byte> bytes;
  size_t length = 0;
};

/// All of the bytes; those that were left out are zeros.
std::vector<std::byte> Whole(const Piece& piece);

/// Bytes that came from the control device, right or wrong, so long after a command.
struct Reply {
  uint64_t after_ns = 0;
  std::vector<std::byte> bytes;
};

/// A command of the daemon, and what came before the next one.
struct Exchange {
  uint64_t at_ns = 0;
  bool is_before = false;  // the begin
  std::vector<std::byte> command;
  std::vector<Reply> replies = {};
};

/// What happens next in a replay; times since the recording's begin.
struct Step {
  enum class Kind {
    kChange,   // of a node: it arrives, leaves, gets other rights
    kExpect,   // the command of an exchange
    kDeliver,  // bytes of a tap-out device
    kEnd,      // the device ends its stream
  };
  uint64_t at_ns = 0;
  Kind kind = Kind::kChange;
  std::string node = {};
  NodeEvent event = NodeEvent::kArrived;  // of a change
  uint32_t number = 0;                    // permission bits; the exchange's index
  Piece piece = {};
};

struct Script {
  std::vector<Step> steps;  // in the order of time
  std::vector<Exchange> exchanges;
  std::map<std::string, std::vector<Piece>> injected;  // by inject node
  std::vector<std::string> problems = {};              // of the recording, a line each
};

/// From `begin_ns` of the recording on: nodes that have arrived before it arrive at once. A
/// recording that is damaged ends there. Where its clock jumps back, or by more than an hour, no
/// time passes. Throws std::runtime_error for bytes that are no recording.
Script ReadScript(std::span<const std::byte> file, uint64_t begin_ns = 0);

/// A co-processor that knows what the recording tells of its cores, taps and devices.
Scenario ScenarioOf(const Script& script);

}  // namespace kvox::sim
