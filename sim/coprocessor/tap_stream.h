// Streams the audio of an enabled tap into a tap-out device: a packet for every block, on time
// unless a fault strikes. The caller has the clock. One thread at a time.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "sim/coprocessor/co_processor.h"
#include "sim/coprocessor/pacer.h"
#include "sim/devices/packet_port.h"
#include "sim/faults/fault_plan.h"
#include "sim/faults/packet_faults.h"
#include "sim/output.h"

namespace kvox::sim {

struct StreamOptions {
  double speed = 1;  // times real time
  /// Packets carry their sample rate at any speed. Otherwise, unless `speed` is 1, it is 0: they
  /// are not timed.
  bool keep_rate = false;
};

class TapStream {
 public:
  /// How often a stream without a reader looks for one.
  static constexpr uint64_t kReaderPollNs = 10'000'000;
  /// Packets that faults can hold back; more are dropped.
  static constexpr size_t kMaxHeld = 1024;

  /// References outlive the stream. For every reader it starts with the first frame of the tap's
  /// source and packet number 1.
  TapStream(Tap& tap, uint8_t tapout, PacketPort& port, const StreamOptions& options,
            FaultPlan& plan, Journal& journal, uint64_t now_ns);
  ~TapStream();
  TapStream(const TapStream&) = delete;
  TapStream& operator=(const TapStream&) = delete;

  Tap& tap() { return tap_; }

  /// Sends what is due at `now_ns`. Returns when to call it again: earlier calls are harmless, and
  /// late ones catch up by at most kCatchUpNs.
  uint64_t Run(uint64_t now_ns);

 private:
  bool LookForReader(uint64_t now_ns);
  void QueueOne(uint64_t now_ns);
  OutPacket Build(std::span<const FaultConfig> struck);
  void Schedule(OutPacket& packet, uint64_t now_ns);
  bool SendQueued(uint64_t now_ns);
  bool Send(OutPacket& packet, uint64_t now_ns);
  void Stop();

  Tap& tap_;
  const std::string name_;  // in faults
  const uint8_t tapout_;
  PacketPort& port_;
  const bool timed_;
  FaultPlan& plan_;
  Journal& journal_;
  Pacer pacer_;
  bool running_ = false;
  uint32_t packet_num_ = 0;  // of the last packet that was due
  bool early_ = false;       // the next one is sent before it is due
  uint32_t excused_ = 0;     // packets from the next one on that need not come back
  uint32_t burst_ = 0;       // packets from the next one on that are held back
  TapCounts at_start_;
  std::deque<OutPacket> queue_;  // in the order of sending
  std::vector<std::byte> interleaved_;
};

}  // namespace kvox::sim
