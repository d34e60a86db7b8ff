// Finds the cause of what went wrong with a packet: a decision for each symptom, from the record
// and the evidence around it. Where the evidence does not decide, the cause is undecided.
//
// Pure: no I/O.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "libkvox/flight/evidence.h"

namespace kvox::client {

enum class Cause : uint8_t {
  kCoprocessorLate,
  kCoprocessorEarly,
  kCoprocessorSkipped,   // numbers
  kCoprocessorRepeated,  // packets
  kDeviceLate,
  kNoProcessorTime,
  kProcessorSlow,
  kProcessorRefused,
  kClientLate,
  kClientRefused,
  kClientDied,
  kInjectFull,
  kInjectGone,
  kRewired,
  kNoRoute,
  kRestart,
  kJunk,
  kReadErrors,
  kUndecided,
};
inline constexpr size_t kCauses = static_cast<size_t>(Cause::kUndecided) + 1;

/// What can be wrong with one record of a stream.
enum class Symptom : uint8_t {
  kLate,
  kEarly,
  kMissing,      // packets before it
  kLost,         // itself
  kRepeated,     // it has come before
  kInterrupted,  // the stream stood still before it
};

struct Blame {
  Cause cause = Cause::kUndecided;
  std::string culprit = {};   // a processor, an inject buffer, a caller; may be empty
  std::string evidence = {};  // in words
};

/// The index of the packet before in the same numbering: those that are repeated or out of order
/// are skipped. 0 for the first.
size_t PacketBefore(const std::vector<PacketRecord>& packets, size_t index);

/// Decides for one stream. The log outlives it.
class Investigation {
 public:
  Investigation(const FlightView& flight, const StreamView& stream);

  /// `index` is the record's in the stream's packets. Ask for all symptoms in the order of the
  /// packets: a packet that is late or early explains those that make up for it.
  Blame Of(Symptom symptom, size_t index);

  /// How much later than its period the packet came; negative: earlier.
  int64_t ErrorNs(size_t index) const;

 private:
  Blame OfTiming(size_t index);
  Blame OfMissing(size_t index);
  Blame OfLoss(size_t index) const;
  Blame OfChange(size_t index, uint64_t from_ns, uint64_t to_ns) const;
  Blame OfClient(const PacketRecord& packet) const;
  Blame OfInterruption(size_t index) const;
  std::optional<Blame> MakesUp(size_t index, int64_t error_ns);
  std::optional<Blame> ByJunk(size_t index) const;
  std::optional<Blame> BusyBefore(size_t index, int64_t error_ns) const;
  std::optional<Blame> ByScheduling(size_t index, uint64_t late_ns) const;
  std::optional<Blame> ByStamps(size_t index, int64_t error_ns) const;
  std::optional<Blame> ByCaller(const EventView* change) const;
  std::optional<Blame> ByDevices(uint64_t from_ns, uint64_t to_ns,
                                 const std::string& node = "") const;
  std::optional<Blame> ByClientDeath(uint64_t from_ns, uint64_t to_ns, size_t index) const;
  std::string InjectOf(const PacketRecord& packet) const;
  uint64_t SpanBegin(size_t index) const;

  const FlightView& flight_;
  const StreamView& stream_;
  const std::vector<PacketRecord>& packets_;
  const StampClock stamps_;
  const Scheduling scheduling_;
  const StreamEvents events_;

  // The last packet that was late or early, or came after missing ones.
  Blame last_timing_;
  uint64_t last_timing_ns_ = 0;
  int64_t behind_ns_ = 0;  // how far arrivals are behind their pace since then
};

}  // namespace kvox::client
