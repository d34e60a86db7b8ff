// What has become of each packet of a stream, for the flight log: the reader tells it what happens
// to a packet, and it writes the record.
//
// One I/O thread. RT throughout, except Begin().
#pragma once

#include <cstddef>
#include <cstdint>

#include "buffer/inject_port.h"
#include "buffer/stream_parser.h"
#include "buffer/timing_judge.h"
#include "kvox/common/kvox_packet.h"
#include "kvox/flight/stream_log.h"
#include "processors/block.h"
#include "processors/kvox_processor.h"

namespace kvox {

class PacketAccount {
 public:
  /// Null: nothing is recorded.
  explicit PacketAccount(flight::StreamSlot* slot) : log_(slot) {}

  /// The thread that calls from now on.
  void Begin() { log_.Begin(); }
  void End() { log_.End(); }

  /// Reading failed.
  void DeviceFailed() { log_.Junk(flight::Loss::kDevice, 0); }

  /// A read of `size` bytes contained this.
  void Read(const StreamFindings& findings, size_t size);

  // The packet that was read last, in this order.

  void Arrived(const KvoxPacketHeader& header, uint64_t now_ns);
  void Judged(const TimingVerdict& verdict);
  /// A processor has had its block for `took_ns`; then, if it has an inject buffer, the block was
  /// offered to that. `ended`: what has ended waits, kRewired or kSwitchedOff, kNone for nothing.
  void Processed(const KvoxProcessor& processor, const BlockResult& result, uint64_t took_ns,
                 flight::Loss ended);
  void Sent(const InjectPort& port, flight::Loss ended);
  void RouteDone();
  /// All routes are done.
  void Dispatched(uint64_t now_ns);

  /// It is lost; only the first reason counts.
  void Lose(flight::Loss why);

  /// Writes the record.
  void Close() { log_.Add(record_); }

 private:
  flight::StreamLog log_;
  flight::PacketRecord record_ = {};
  uint64_t processing_ns_ = 0;  // of all its processors
  bool offered_ = false;        // to an inject buffer
  bool lost_by_processor_ = false;
  uint64_t done_ns_ = 0;  // when the packet before it had been dispatched
};

}  // namespace kvox
