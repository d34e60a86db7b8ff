#include "libkvox/graph/probe.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <utility>

#include "kvox/common/command_tables.h"
#include "kvox/common/fixed_text.h"
#include "libkvox/flight/find_flight.h"
#include "libkvox/graph/route.h"
#include "libkvox/model/lookup.h"

namespace kvox::client {
namespace {

constexpr char kRelayType[] = "arel";
constexpr uint32_t kRelayRate = 48'000;
constexpr unsigned kLongestDefault = 4800;  // frames: what a new relay takes
constexpr unsigned kLengthStep = 480;
constexpr char kMark = '~';
constexpr char kNoTraces = '-';
constexpr unsigned kBase = 36;

int32_t NumberOf(const std::vector<Buffer>& buffers, const std::string& name) {
  const Buffer* const buffer = FindBuffer(buffers, name);
  return buffer == nullptr ? -1 : buffer->id;
}

std::optional<Buffer> BufferNamed(const std::string& name, const Snapshot& snapshot) {
  for (const auto* const buffers : {&snapshot.tapouts, &snapshot.injects}) {
    if (const Buffer* const buffer = FindBuffer(*buffers, name)) return *buffer;
  }
  return std::nullopt;
}

const TapPoint* TapOf(const std::string& buffer, std::string TapPoint::*end,
                      const Snapshot& snapshot) {
  const auto found = std::ranges::find(snapshot.taps, buffer, end);
  return found == snapshot.taps.end() ? nullptr : &*found;
}

/// Of a point that is not a tap point.
std::optional<Access> AtRelay(const std::string& point, const Snapshot& snapshot) {
  const Processor* const processor = FindProcessor(snapshot.processors, point);
  if (processor == nullptr || processor->type != kRelayType) return std::nullopt;
  return Access{.relay = point, .stream = processor->input};
}

/// Adds the relay. The tap point's blocks have to fit into its own; those that are sent have to be
/// as long as they.
void AddRelay(const TapPoint* tap, Use use, const std::string& inject, Access& access) {
  ProcessorState relay{
      .type = kRelayType, .input = access.stream, .output = inject, .enabled = true};
  if (tap != nullptr) {
    if (tap->sample_rate_hz != kRelayRate) {
      throw Failure(kRefused, tap->FullName() + " has " + std::to_string(tap->sample_rate_hz) +
                                  " Hz, and relays take 48000 Hz only; 'kvoxctl route " +
                                  tap->FullName() +
                                  " PROCESSOR --type pass', then 'kvoxctl capture start " +
                                  access.stream + " FILE' writes it to a file");
    }
    const uint32_t frames = tap->block_length_frames;
    if (use == Use::kSend && (frames == 0 || frames % kLengthStep != 0)) {
      throw Failure(kRefused, tap->FullName() + " has blocks of " + std::to_string(frames) +
                                  " frames, and relays send multiples of 480; 'kvoxctl tap "
                                  "block-length " +
                                  tap->FullName() + " 480' sets that");
    }
    if (frames > kMaxBlockLength) {
      throw Failure(kRefused, tap->FullName() + " has blocks of " + std::to_string(frames) +
                                  " frames, and relays take 24000 at most; 'kvoxctl tap "
                                  "block-length " +
                                  tap->FullName() + " 4800' sets that");
    }
    if (use == Use::kSend || frames > kLongestDefault) {
      relay.block_length_frames =
          static_cast<int32_t>((frames + kLengthStep - 1) / kLengthStep * kLengthStep);
    }
  }
  access.temporary = true;
  access.state.processors[access.relay] = relay;
  access.state.running.insert(access.stream);
  access.state.running.merge(FedInjects(access.state));
}

Access AtTapOut(const std::string& tapout, Use use, const std::string& relay,
                const Snapshot& snapshot) {
  if (use == Use::kSend) {
    throw UsageError(tapout + " only delivers audio; send to an inject buffer or a tap point");
  }
  Access access{.relay = relay, .stream = tapout, .state = StateOf(snapshot)};
  AddRelay(TapOf(tapout, &TapPoint::tapout, snapshot), use, "", access);
  return access;
}

/// Refuses when somebody writes the inject buffer.
void RequireUnwritten(const std::string& inject, const Snapshot& snapshot) {
  const Buffer* const buffer = FindBuffer(snapshot.injects, inject);
  if (buffer == nullptr || buffer->producer.empty()) return;
  const std::string& writer = buffer->producer;
  const bool relay = AtRelay(writer, snapshot).has_value();
  throw Failure(kRefused, inject + " is written by " + writer + ", and has one writer; " +
                              (relay ? "send to that relay by its name"
                                     : "'kvoxctl unroute " + writer + "' frees it"));
}

/// A tap point that streams somewhere and takes audio from nowhere stays as it is: binding it anew
/// would interrupt it.
Access AtTap(const TapPoint& tap, Use use, const std::string& relay, const Snapshot& snapshot) {
  Access access{.relay = relay, .state = StateOf(snapshot)};
  TapState& state = access.state.taps.at(tap.FullName());
  const bool idle = tap.tapout.empty() && tap.inject.empty() && !tap.enabled;
  const bool lacks = tap.tapout.empty() || (use == Use::kSend && tap.inject.empty());
  if (lacks && !idle) {
    throw Failure(kRefused, tap.FullName() +
                                (tap.tapout.empty() ? " streams into no buffer"
                                                    : " takes audio from no buffer") +
                                " and is in use; 'kvoxctl tap connect " + tap.FullName() +
                                " TAPOUT INJECT' changes that");
  }
  if (state.tapout.empty()) {
    state.tapout = FreeBuffer(Direction::kTapOut, snapshot, access.state);
  }
  if (use == Use::kSend && state.inject.empty()) {
    state.inject = FreeBuffer(Direction::kInject, snapshot, access.state);
  }
  if (use == Use::kSend) RequireUnwritten(state.inject, snapshot);
  state.enabled = true;
  access.stream = state.tapout;
  AddRelay(&tap, use, use == Use::kSend ? state.inject : "", access);
  return access;
}

Access AtInject(const std::string& inject, Use use, const std::string& relay,
                const Snapshot& snapshot) {
  if (use == Use::kReceive) {
    throw UsageError(inject + " only takes audio; 'kvoxctl capture start " + inject +
                     " FILE' writes what passes through it to a file");
  }
  RequireUnwritten(inject, snapshot);
  const TapPoint* const tap = TapOf(inject, &TapPoint::inject, snapshot);
  if (tap != nullptr) return AtTap(*tap, use, relay, snapshot);
  throw Failure(kRefused, inject + " plays at no tap point; name the tap point, or bind one: " +
                              "'kvoxctl tap connect TAP TAPOUT " + inject + "'");
}

/// The byte of the relay in the flight log, far beyond what the daemon locks.
struct flock LockOf(const std::string& relay, short type) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = off_t{1} << 32 | static_cast<uint32_t>(CodeOf(relay));
  lock.l_len = 1;
  return lock;
}

/// Whether the client that has made the relay is gone; false also when that cannot be found out.
bool IsLeftover(const std::string& relay) {
  const UniqueFd fd = OpenFlight();
  struct flock lock = LockOf(relay, F_WRLCK);
  return fd.valid() && fcntl(fd.get(), F_OFD_GETLK, &lock) == 0 && lock.l_type == F_UNLCK;
}

/// What clients have left behind that crashed.
void RemoveLeftovers(Daemon& daemon) {
  for (const Processor& processor : QueryProcessors(daemon).rows) {
    const auto traces = TracesOf(processor.id);
    if (processor.type != kRelayType || !traces || !IsLeftover(processor.id)) continue;
    const Made made = {processor.id, processor.input, *traces};
    try {
      MakeChangeSoFar(daemon, [&](const Snapshot& snapshot) { return Without(made, snapshot); });
    } catch (const Failure&) {
      // Somebody else may have removed it.
    }
  }
}

/// What has been made for the stream, now or by the temporary relays that read it already: the last
/// one takes it down.
Traces TracesIn(const Access& access, const Snapshot& snapshot) {
  Traces traces;
  for (const Processor& processor : snapshot.processors) {
    const auto theirs = TracesOf(processor.id);
    if (!theirs || processor.input != access.stream) continue;
    traces.bound = traces.bound || theirs->bound;
    traces.enabled = traces.enabled || theirs->enabled;
    traces.started = traces.started || theirs->started;
  }
  const State before = StateOf(snapshot);
  for (const auto& [name, tap] : access.state.taps) {
    const TapState& then = before.taps.at(name);
    traces.bound = traces.bound || tap.tapout != then.tapout || tap.inject != then.inject;
    traces.enabled = traces.enabled || tap.enabled != then.enabled;
  }
  traces.started = traces.started || !before.running.contains(access.stream);
  return traces;
}

}  // namespace

Access PlanAccess(const std::string& point, Use use, const std::string& relay,
                  const Snapshot& snapshot) {
  if (auto access = AtRelay(point, snapshot)) return *std::move(access);
  if (const Processor* const processor = FindProcessor(snapshot.processors, point)) {
    if (use == Use::kSend) {
      throw UsageError(point + " is of type " + processor->type +
                       ", and only relays (type arel) take audio; send to a tap point");
    }
    if (!processor->input.empty()) return AtTapOut(processor->input, use, relay, snapshot);
    throw Failure(kRefused, point + " reads nothing; 'kvoxctl connect' connects it");
  }
  if (const auto buffer = BufferNamed(point, snapshot)) {
    return buffer->direction == Direction::kTapOut ? AtTapOut(point, use, relay, snapshot)
                                                   : AtInject(point, use, relay, snapshot);
  }
  if (ParseTapWord(point)) return AtTap(SelectTap(snapshot.taps, point), use, relay, snapshot);
  throw UsageError("POINT: '" + ValidUtf8(point) +
                   "' is no tap point such as imic.0, no buffer such as tapout0, and no processor");
}

std::string TemporaryName(const std::optional<Traces>& traces, unsigned number) {
  constexpr char kDigits[] = "0123456789abcdefghijklmnopqrstuvwxyz";
  char marks = kNoTraces;
  if (traces) {
    marks =
        kDigits[(traces->bound ? 1 : 0) | (traces->enabled ? 2 : 0) | (traces->started ? 4 : 0)];
  }
  return {kMark, marks, kDigits[number / kBase % kBase], kDigits[number % kBase]};
}

std::optional<Traces> TracesOf(const std::string& processor) {
  if (processor.size() != 4 || processor[0] != kMark) return std::nullopt;
  const int marks = processor[1] - '0';
  if (marks < 0 || marks > 7) return std::nullopt;
  return Traces{(marks & 1) != 0, (marks & 2) != 0, (marks & 4) != 0};
}

State Without(const Made& made, const Snapshot& snapshot) {
  State state = StateOf(snapshot);
  std::string output;
  if (const auto found = state.processors.find(made.relay); found != state.processors.end()) {
    output = found->second.output;
    state.processors.erase(found);
  }
  if (made.tapout.empty() || HasProcessor(made.tapout, state)) return state;
  if (made.traces.started) {
    state.running.erase(made.tapout);
    state.running.erase(output);
  }
  for (auto& [name, tap] : state.taps) {
    if (tap.tapout != made.tapout) continue;
    if (made.traces.enabled) tap.enabled = false;
    if (made.traces.bound) tap.tapout = tap.inject = "";
  }
  return state;
}

Probe::Probe(Daemon& daemon, const std::string& point, Use use, const std::optional<Made>& lost)
    : daemon_(daemon) {
  if (lost) {
    MakeChangeSoFar(daemon, [&](const Snapshot& snapshot) { return Without(*lost, snapshot); });
  }
  RemoveLeftovers(daemon);
  Make(point, use);
}

/// The relay's name says what is made with it, so it is planned twice.
void Probe::Make(const std::string& point, Use use) {
  MakeChange(daemon_, [&](const Snapshot& snapshot) {
    access_ = PlanAccess(point, use, "", snapshot);
    if (!access_.temporary) return StateOf(snapshot);
    lock_ = OpenFlight();
    const Traces traces = TracesIn(access_, snapshot);
    const auto readable = lock_.valid() ? std::optional(traces) : std::nullopt;
    static std::atomic<unsigned> next{0};
    std::string name;
    do {
      name = TemporaryName(readable, static_cast<unsigned>(getpid()) + next++);
    } while (FindProcessor(snapshot.processors, name) != nullptr);
    access_ = PlanAccess(point, use, name, snapshot);
    made_ = {name, access_.stream, traces};
    struct flock lock = LockOf(name, F_RDLCK);
    if (lock_.valid()) fcntl(lock_.get(), F_OFD_SETLK, &lock);
    tapout_ = NumberOf(snapshot.tapouts, access_.stream);
    inject_ = NumberOf(snapshot.injects, access_.state.processors.at(name).output);
    return access_.state;
  });
}

void Probe::Refresh() {
  if (!access_.temporary) return;
  try {
    daemon_.Call("Connect", &IKvox::Connect, CodeOf(relay()), tapout_, inject_);
  } catch (const Failure&) {
  }
}

std::optional<Made> Probe::Forget() {
  if (!access_.temporary) return std::nullopt;
  access_.temporary = false;
  return made_;
}

Probe::~Probe() {
  if (!access_.temporary) return;
  try {
    MakeChangeSoFar(daemon_, [this](const Snapshot& snapshot) { return Without(made_, snapshot); });
  } catch (const Failure&) {
  }
}

}  // namespace kvox::client
