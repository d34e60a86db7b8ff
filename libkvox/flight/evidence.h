// What a flight log says about a moment of a stream, for the search for causes: what the
// co-processor's stamps say, whether threads had a processor, and what clients and devices did.
//
// Pure: no I/O. The log may be damaged, so nothing here relies on any order or range of its values.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kvox/flight/reader.h"

namespace kvox::client {

using flight::EventKind;
using flight::EventView;
using flight::FlightView;
using flight::PacketRecord;
using flight::StreamView;

/// The co-processor's stamps as a clock. The daemon does not know their unit: it is found by
/// comparing them with the arrivals of punctual packets.
class StampClock {
 public:
  explicit StampClock(const std::vector<PacketRecord>& packets);

  /// False when the stamps are no clock: constant, random, or a count of samples, which goes on
  /// evenly however late a packet is sent.
  bool usable() const { return ns_per_unit_ > 0; }

  /// From one packet's sending to the other's.
  int64_t BetweenNs(const PacketRecord& from, const PacketRecord& to) const;

 private:
  double ns_per_unit_ = 0;
};

/// How long an I/O thread had to wait for a processor, more than it usually does.
struct ProcessorWait {
  uint64_t waited_ns = 0;   // in the samples around the time
  uint64_t sampler_ns = 0;  // how much later than usual the daemon took its sample
};

/// The scheduling of one stream's thread.
class Scheduling {
 public:
  explicit Scheduling(const StreamView& stream);

  /// None where there are no samples around the time from `from_ns` to `to_ns`, or the thread was
  /// started after the first of them, at `began_ns`.
  std::optional<ProcessorWait> WaitAround(uint64_t from_ns, uint64_t to_ns,
                                          uint64_t began_ns) const;

 private:
  const std::vector<StreamView::Scheduling>& samples_;
  uint64_t usual_ns_ = 0;  // waited between two samples
};

/// The events of a log that concern one stream. All functions return null for none.
class StreamEvents {
 public:
  StreamEvents(const FlightView& flight, const StreamView& stream);

  /// The first node that left or came in this time. Of one node only, when it is named.
  const EventView* DeviceChange(uint64_t from_ns, uint64_t to_ns,
                                const std::string& node = "") const;

  /// The last change of the stream's routes in this time.
  const EventView* RouteChange(uint64_t from_ns, uint64_t to_ns) const;

  /// The disconnect because of which the stream has no route at that time.
  const EventView* LastDisconnect(uint64_t until_ns) const;

  /// The last exchange about a tap that feeds the stream, in this time.
  const EventView* TapChange(uint64_t from_ns, uint64_t to_ns) const;

  /// The first time that the stream was switched on or off in this time.
  const EventView* Switching(uint64_t from_ns, uint64_t to_ns) const;

  /// The last time that it was switched off in this time.
  const EventView* SwitchingOff(uint64_t from_ns, uint64_t to_ns) const;

  /// The death of the client of this processor, in this time.
  const EventView* ClientDeath(uint64_t from_ns, uint64_t to_ns,
                               const std::string& processor) const;

  /// The command of a process during which something happened.
  const EventView* CommandDuring(uint64_t at_ns, uint32_t pid) const;

 private:
  const FlightView& flight_;
  // Oldest first.
  std::vector<const EventView*> devices_;
  std::vector<const EventView*> deaths_;  // of clients
  std::vector<const EventView*> routes_;
  std::vector<const EventView*> disconnects_;  // of the last route
  std::vector<const EventView*> taps_;
  std::vector<const EventView*> switches_;
  std::vector<const EventView*> offs_;
};

}  // namespace kvox::client
