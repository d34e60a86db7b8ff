// What differs between two looks at a daemon. Pure.
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
  std::string change;  // "appeared", "gone", "enabled", "disabled", "connected", "disconnected",
                       // "bound", "unbound", "silent", "answers"
  std::string role;    // of what it was connected with or bound to: "input", "output", "tapout",
                       // "inject"; for an object that appeared, "type"
  std::string peer;    // its name

  bool operator==(const Change&) const = default;
};

/// In the order processors, buffers, tap points. What appears does so disabled and unconnected, and
/// changes from there on. The tap points of a core that does not answer now stay as they are: `now`
/// takes them over from `before`.
std::vector<Change> ChangesBetween(const Sample& before, Sample& now);

/// Its words, parted by blanks.
std::string LineOf(const Change& change);

Fields FieldsOf(const Change& change);

}  // namespace kvox::client
