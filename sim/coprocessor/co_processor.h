// The state of the simulated co-processor: its tap points and their bindings. One thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kvox/common/control_records.h"
#include "sim/audio/sink.h"
#include "sim/audio/source.h"
#include "sim/coprocessor/round_trip.h"
#include "sim/scenario/scenario.h"

namespace kvox::sim {

/// Packets, unless it says otherwise; docs/simulator.md defines them.
struct TapCounts {
  uint64_t streams = 0;  // started
  uint64_t sent = 0;
  uint64_t dropped = 0;   // the device was full
  uint64_t skipped = 0;   // the simulator stalled
  uint64_t withheld = 0;  // by a fault
  uint64_t unheard = 0;   // no process had the device open
  uint64_t received = 0;
  uint64_t sink_failed = 0;
  uint64_t max_late_ns = 0;  // longest time from due to sent
};

struct Tap {
  TapConfig config;
  std::unique_ptr<Source> source;
  std::unique_ptr<Sink> sink;  // null: returning audio is not kept

  bool enabled = false;
  uint32_t block_length = 0;
  uint32_t jitter_buffer = 0;
  uint8_t tapout = kNoBuffer;
  uint8_t inject = kNoBuffer;
  uint64_t changed = 0;  // orders the taps by their last enable or bind

  TapCounts counts;
  RoundTrip round_trip;

  /// "imic.0 (core 2)"
  std::string Name() const;
  /// Takes a packet that came back on the inject that this tap is bound to.
  void Receive(const KvoxPacketHeader& header, std::span<const std::byte> payload, uint64_t now_ns);
};

class CoProcessor {
 public:
  /// Throws std::invalid_argument, which says where and why, when a file of the scenario cannot be
  /// used.
  explicit CoProcessor(Scenario scenario);

  const Scenario& scenario() const { return scenario_; }
  /// In the order of the scenario.
  std::vector<Tap>& taps() { return taps_; }
  const std::vector<Tap>& taps() const { return taps_; }

  /// The tap at an address, null when there is none.
  Tap* Find(const TapAddress& address);

  /// The tap that streams into a tap-out device: of the enabled taps that are bound to it the one
  /// that was enabled or bound last. Null when there is none.
  Tap* StreamingInto(uint8_t tapout);

  /// The tap that takes what arrives on an inject device: of those bound to it the one that was
  /// enabled or bound last, enabled ones first. Null when there is none.
  Tap* ReceivingFrom(uint8_t inject);

  /// A restart: taps are disabled and unbound and have the scenario's block length.
  void Reset();

  /// Notes that a tap was enabled or bound just now.
  void Touch(Tap& tap) { tap.changed = ++changes_; }

 private:
  template <typename Matches>
  Tap* Latest(Matches matches);

  const Scenario scenario_;
  std::vector<Tap> taps_;
  uint64_t changes_ = 0;
};

}  // namespace kvox::sim
