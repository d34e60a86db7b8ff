// The streams that flow while faults happen: one for each way in which audio can pass the daemon.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <string>

#include "kvox/common/four_cc.h"

namespace kvox::campaign {

/// Who has a say over a stream.
enum class Owner {
  kNobody,    // set up at the start and left alone: its audio has to flow all the time
  kClient,    // a client changes it all the while
  kUseCase,   // a use case that a client switches
  kSwitched,  // a use case that is switched on at the start and stays on
};

/// What comes back of it.
enum class Returns {
  kExact,  // what was sent
  kEcho,   // what was sent, by way of a client that has half a block's time
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
  Owner owner;
  Returns returns;
  std::chrono::milliseconds block;  // duration of one
  const char* format;               // further keys of the scenario's table

  /// "genp.0"
  std::string TapName() const;
};

std::span<const Stream> Streams();

/// The scenario that has these streams' taps and devices.
std::string ScenarioText();

}  // namespace kvox::campaign
