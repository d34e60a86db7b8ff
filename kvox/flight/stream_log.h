// What an I/O thread writes into the flight log: a record for each packet, counters and histograms.
//
// One I/O thread. RT: no system call, no lock, no allocation.
#pragma once

#include <cstdint>

#include "kvox/flight/layout.h"

namespace kvox::flight {

/// The counters of an inject buffer. The thread whose packets it takes writes them.
class InjectLog {
 public:
  /// Null: records nothing.
  explicit InjectLog(InjectSlot* slot = nullptr, uint8_t number = kNoInject)
      : slot_(slot), number_(number) {}

  void Count(Written outcome);
  uint8_t number() const { return number_; }

 private:
  InjectSlot* slot_;
  uint8_t number_;
};

/// The log of one stream from switching it on to switching it off. The numbers of its packets are
/// accounted for from the first one on.
class StreamLog {
 public:
  /// Null: records nothing. The slot outlives this object.
  explicit StreamLog(StreamSlot* slot) : slot_(slot) {}

  /// The thread that calls from now on. Not RT: a system call.
  void Begin();

  /// It writes no more.
  void End();

  /// `bytes` were read that are no packet, or reading failed. What is missing before the next
  /// packet was lost for the first reason since the packet before.
  void Junk(Loss why, uint32_t bytes);

  /// A packet has been dispatched, or is lost. Takes all fields but those about missing ones.
  void Add(PacketRecord record);

 private:
  bool FollowNumbers(PacketRecord& record);
  void FollowArrivals(const PacketRecord& record);

  StreamSlot* const slot_;
  Loss pending_ = Loss::kNone;  // since the last packet
  bool any_ = false;
  uint32_t number_ = 0;  // of the last packet in order, as its time
  uint64_t arrived_ns_ = 0;
  bool apart_ = false;  // the last packet was out of order, and this was its number
  uint32_t apart_number_ = 0;
  bool gapless_ = false;  // nothing is missing between it and the one before
};

}  // namespace kvox::flight
