// What a daemon sends now, against what it sent in the recording. Pure.
#pragma once

#include <cstddef>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "sim/recording/script.h"

namespace kvox::sim {

/// "CMD_KVOX_TAP_BIND_ID 2:imic.0 tap-out 0 inject none"
std::string CommandText(std::span<const std::byte> command);

/// Whether two commands ask for the same: their sequence numbers do not count.
bool SameCommand(std::span<const std::byte> one, std::span<const std::byte> other);

/// What was sent while a replay ran.
struct Sent {
  std::vector<std::vector<std::byte>> commands;
  std::map<std::string, std::vector<Piece>> injected;  // by node
  bool rated = true;                                   // packets have their sample rate
};

/// Lines of a difference, nothing when there is none: "- command 7: ..." was sent in the recording
/// only, "+ command 7: ..." now only. Commands and the packets of an inject node are counted
/// from 1.
std::vector<std::string> Compare(const Script& script, const Sent& sent);

}  // namespace kvox::sim
