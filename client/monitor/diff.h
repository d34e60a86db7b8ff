// The changes between two samples of a daemon.
#pragma once

#include <string>
#include <vector>

#include "client/monitor/sampler.h"
#include "client/output/printer.h"

namespace kvox::client {

/// "processor pass connected input tapout0"
struct Change {
  std::string object;  // "processor", "tap-out", "inject", "tap", "core" or "daemon"
  std::string name;
  std::string change;     // "appeared", "gone", "enabled", "disabled", "connected", "disconnected",
                          // "bound", "unbound", "gave up", "silent", "answers", "lost"
  std::string role = {};  // of the peer: "input", "output", "tapout", "inject"; for a processor
                          // that appeared, "type"
  std::string peer = {};  // what it was connected or bound to; for "lost", with the role "cause",
                          // the cause's word
  std::string text = {};  // more words, for people
};

/// The changes of processors, buffers and tap points, in this order. Objects appear disabled and
/// unconnected, and change from there on. Tap points of a core that does not reply are kept: they
/// are copied from `before` to `now`.
std::vector<Change> Diff(const Sample& before, Sample& now);

/// Its words, separated by blanks.
std::string LineOf(const Change& change);

Json RecordOf(const Change& change);

}  // namespace kvox::client
