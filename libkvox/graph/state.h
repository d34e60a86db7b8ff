// A daemon's configuration, actual or wanted.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "libkvox/model/snapshot.h"

namespace kvox::client {

/// In a wanted state, a setting that is not given may be anything.
struct ProcessorState {
  std::string type = {};
  std::string input = {};   // tap-out buffer, "" for none
  std::string output = {};  // inject buffer, "" for none
  bool enabled = false;
  std::optional<bool> passthrough_mode = {};
  std::optional<bool> test_mode = {};
  std::optional<int32_t> block_length_frames = {};
  std::optional<int32_t> jitter_buffer_frames = {};

  bool operator==(const ProcessorState&) const = default;
};

struct TapState {
  std::string tapout = {};  // "" for none
  std::string inject = {};  // "" for none
  bool enabled = false;
  std::optional<uint32_t> block_length_frames = {};
  std::optional<uint32_t> jitter_buffer_frames = {};  // wanted only: the daemon does not report it
  bool named = false;  // in the file: the daemon may not know what the co-processor has

  bool idle() const { return !enabled && tapout.empty() && inject.empty(); }
  bool operator==(const TapState&) const = default;
};

/// Everything that `apply` can set.
struct State {
  std::map<std::string, ProcessorState> processors;  // by id
  std::map<std::string, TapState> taps;              // by full name, "2:imic.0"
  std::set<std::string> running;                     // buffers that are enabled
  bool telephony = false;                            // the use case AREL_TELE is on
};

/// The state of the snapshot, with all of its tap points.
State StateOf(const Snapshot& snapshot);

/// The name of the telephony use case.
inline constexpr char kTelephony[] = "AREL_TELE";

/// By its name.
inline bool IsTapOut(const std::string& buffer) {
  return buffer.starts_with(BufferPrefix(Direction::kTapOut));
}

/// One property in which two states differ, as printed.
struct Difference {
  std::string object;    // "processor pass"
  std::string property;  // "output"
  std::string wanted;    // "inject0"
  std::string actual;    // "none"
};

/// Inject buffers that run because a running tap-out buffer feeds them.
std::set<std::string> FedInjects(const State& wanted);

/// Fills in what `wanted` leaves out: tap points are off and unbound, and the inject buffers that
/// its tap-outs feed run. With `keep`, everything that it leaves out is as in `actual`.
State Complete(State wanted, const State& actual, bool keep);

/// Where `actual` differs from a complete wanted state.
std::vector<Difference> Differences(const State& wanted, const State& actual);

}  // namespace kvox::client
