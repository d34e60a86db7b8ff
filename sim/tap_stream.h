// The audio of an enabled tap on its way into a tap-out device: a packet for every block, on time.
// Pure but for the port; the caller has the clock. One thread at a time.
#pragma once

#include <cstdint>
#include <vector>

#include "sim/co_processor.h"
#include "sim/journal.h"
#include "sim/pacer.h"
#include "sim/packet_port.h"

namespace kvox::sim {

class TapStream {
 public:
  /// How often a stream that nobody hears looks for a reader.
  static constexpr uint64_t kReaderPollNs = 10'000'000;

  /// `tap` and `port` outlive the stream. It begins, with the first frame of the tap's source and
  /// packet number 1, when it first finds a reader, and again for every later reader. At a `speed`
  /// other than 1 the packets say that they are not timed (sample rate 0).
  TapStream(Tap& tap, uint8_t tapout, PacketPort& port, double speed, Journal& journal,
            uint64_t now_ns);
  /// Ends the stream.
  ~TapStream();
  TapStream(const TapStream&) = delete;
  TapStream& operator=(const TapStream&) = delete;

  Tap& tap() { return tap_; }

  /// Sends what is due at `now_ns`. Answers when it wants to be called again: earlier calls do no
  /// harm, later ones are made good as far as kCatchUpNs goes.
  uint64_t Run(uint64_t now_ns);

 private:
  bool LookForReader(uint64_t now_ns);
  PacketPort::Result SendOne(uint64_t now_ns);
  void Stop();

  Tap& tap_;
  const uint8_t tapout_;
  PacketPort& port_;
  const bool timed_;
  Journal& journal_;
  Pacer pacer_;
  bool running_ = false;
  uint32_t packet_num_ = 0;  // of the last packet that was due
  TapCounts at_begin_;
  std::vector<std::byte> packet_;
  std::vector<std::byte> interleaved_;
};

}  // namespace kvox::sim
