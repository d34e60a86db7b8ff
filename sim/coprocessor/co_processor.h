// The state of the simulated co-processor: its tap points and what is bound to them. Pure; one
// thread at a time.
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

struct TapCounts {
  uint64_t streams = 0;      // begun
  uint64_t sent = 0;         // packets that went into the device whole
  uint64_t dropped = 0;      // that found the device full
  uint64_t skipped = 0;      // that fell into a stall of the simulator
  uint64_t withheld = 0;     // that a fault took away
  uint64_t unheard = 0;      // that were due while nobody had the device open
  uint64_t received = 0;     // that came back on the bound inject
  uint64_t sink_failed = 0;  // of those, not written to the sink
  uint64_t max_late_ns = 0;  // longest time from due to sent
};

struct Tap {
  TapConfig config;
  std::unique_ptr<Source> source;
  std::unique_ptr<Sink> sink;  // null: nothing is kept

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
  /// Null when a file of the scenario cannot be used; `error` then says where and why.
  static std::unique_ptr<CoProcessor> Create(const Scenario& scenario, std::string& error);

  const std::vector<uint8_t>& cores() const { return cores_; }
  const std::vector<uint8_t>& tapouts() const { return tapouts_; }
  const std::vector<uint8_t>& injects() const { return injects_; }
  std::vector<Tap>& taps() { return taps_; }
  const std::vector<Tap>& taps() const { return taps_; }

  /// The tap at an address, null when there is none.
  Tap* Find(const TapAddress& address);

  /// The tap that streams into a tap-out device: the enabled tap that is bound to it, of several
  /// the one that was enabled or bound last. Null when there is none.
  Tap* StreamingInto(uint8_t tapout);

  /// The tap that takes what arrives on an inject device: of those bound to it an enabled one if
  /// there is one, of several the one that was enabled or bound last. Null when there is none.
  Tap* ReceivingFrom(uint8_t inject);

  /// Forgets what it was told: taps are off and unbound and have the scenario's block length.
  void Reset();

  /// Notes that a tap was enabled or bound just now.
  void Touch(Tap& tap) { tap.changed = ++changes_; }

 private:
  std::vector<uint8_t> cores_;
  std::vector<uint8_t> tapouts_;
  std::vector<uint8_t> injects_;
  std::vector<Tap> taps_;  // in the order of the scenario
  uint64_t changes_ = 0;
};

}  // namespace kvox::sim
