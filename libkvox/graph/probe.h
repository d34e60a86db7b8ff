// The relay through which a client receives or sends audio at a point: one that is there, or a
// temporary one.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "kvox/common/unique_fd.h"
#include "libkvox/calls/daemon.h"
#include "libkvox/graph/change.h"

namespace kvox::client {

enum class Use { kReceive, kSend };

/// How to get at a point.
struct Access {
  std::string relay;        // the processor
  bool temporary = false;   // it has to be made
  std::string stream = {};  // the tap-out buffer whose audio it gets; "" while it is not connected
  State state = {};         // with the temporary relay; its id is `relay`
};

/// How to receive or send at `point`: a tap point, a buffer or a processor. `relay` is the id of a
/// temporary relay. Disturbs nothing that is set up. Throws Failure, which says what fits instead.
/// Pure.
Access PlanAccess(const std::string& point, Use use, const std::string& relay,
                  const Snapshot& snapshot);

// Temporary relays are named "~", what was made with them, and two more characters. Who has made
// one locks a byte beyond the end of the flight log as long as it lives. So the next who makes one
// can remove those whose client has crashed, with what was made for them.

/// What was made with a temporary relay.
struct Traces {
  bool bound = false;    // its tap point
  bool enabled = false;  // its tap point
  bool started = false;  // its tap-out buffer
};

/// Without traces: of a client that may not read the flight log, and so cannot lock it.
std::string TemporaryName(const std::optional<Traces>& traces, unsigned number);
/// None for another processor.
std::optional<Traces> TracesOf(const std::string& processor);

/// A temporary relay, what it reads, and what was made for that.
struct Made {
  std::string relay;
  std::string tapout;
  Traces traces;
};

/// The state without it; when another processor reads the buffer, the rest stays. Pure.
State Without(const Made& made, const Snapshot& snapshot);

/// One thread.
class Probe {
 public:
  /// Makes what is needed; takes down before what was lost with a daemon that died. Throws Failure.
  Probe(Daemon& daemon, const std::string& point, Use use, const std::optional<Made>& lost);

  /// Takes down what it has made, unless another processor uses it by then: the last temporary
  /// relay at a buffer takes down what the first one has made. What fails is left to the next
  /// probe.
  ~Probe();
  Probe(const Probe&) = delete;
  Probe& operator=(const Probe&) = delete;

  const std::string& relay() const { return access_.relay; }
  const std::string& stream() const { return access_.stream; }
  bool temporary() const { return access_.temporary; }

  /// Connects a temporary relay once more, which gives it the format that its stream has now: a
  /// relay that was connected before the stream's first packet may have another one, and refuses
  /// the audio. Failures are ignored.
  void Refresh();

  /// The daemon is gone. Returns what was made with it: the co-processor has kept a part.
  std::optional<Made> Forget();

 private:
  void Make(const std::string& point, Use use);

  Daemon& daemon_;
  Access access_;
  int32_t tapout_ = -1;  // the numbers of the temporary relay's buffers
  int32_t inject_ = -1;
  Made made_;
  UniqueFd lock_;  // of the flight log
};

}  // namespace kvox::client
