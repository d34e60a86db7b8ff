// The streams that flow while faults happen: one for each way in which audio can pass the daemon.
#pragma once

#include <aidl/kvox/IKvox.h>

#include <chrono>
#include <optional>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include "kvox/common/four_cc.h"

namespace kvox::campaign {

using UseCase = aidl::kvox::IKvox::UseCase;

/// A tap point by core, code and index.
using TapId = std::tuple<int, FourCc, int>;

enum class Control {
  kStatic,   // set up at the start and left alone: its audio flows all the time
  kMutated,  // a client changes it all the time
  kToggled,  // a client switches its use case
};

/// What comes back of it.
enum class Returns {
  kExact,  // what was sent
  kEcho,   // what was sent, through a client that has half a block's time
  kSilence,
};

/// A tap point, the buffers of one number that it is bound to, and the processor between them.
struct Stream {
  FourCc tap;
  int index;
  int core;
  int buffer;
  FourCc processor;
  FourCc type;
  Control control;
  Returns returns;
  const char* scenario;               // further keys of the tap, for the simulator
  std::optional<UseCase> use_case{};  // that sets it up
  std::chrono::milliseconds block{100};

  TapId Id() const { return {core, tap, index}; }
  /// "genp.0"
  std::string TapName() const;
};

using StreamList = std::vector<const Stream*>;

std::span<const Stream> Streams();

/// A tap point without buffers of its own, which can take over those of another one: it has the
/// buffers and the processor of that stream.
const Stream& SpareTap();
/// Those of all streams, and the spare one.
std::span<const Stream> Taps();

/// One more processor that reads a stream's tap-out buffer. No tap point is bound to the inject
/// buffer that it writes.
struct FanOut {
  FourCc processor;
  int tapout;
  int inject;
};
std::span<const FanOut> FanOuts();

/// All inject buffers, by number. Every stream has the tap-out buffer of the same number.
std::vector<int> InjectNumbers();

/// The scenario with the taps and devices of these streams.
std::string ScenarioText();

}  // namespace kvox::campaign
