// The data devices: FIFOs, written and read by the event loop's thread without ever blocking it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sim/event.h"
#include "sim/packet_port.h"
#include "sim/packet_reassembler.h"
#include "sim/tap_stream.h"

namespace kvox::sim {

/// A tap-out device: carries the stream of at most one tap.
class TapOutDevice {
 public:
  TapOutDevice(event_base* base, uint8_t id, const std::filesystem::path& path, double speed,
               Journal& journal);

  /// Streams `tap` from now on, nothing when null; a stream of that tap that runs goes on.
  void Attach(Tap* tap);
  uint8_t id() const { return id_; }

 private:
  void Run();
  void OnPipe();
  void Watch();

  event_base* const base_;
  const uint8_t id_;
  const double speed_;
  Journal& journal_;
  FifoWriter writer_;
  std::optional<TapStream> stream_;
  Event due_;
  std::unique_ptr<Event> hang_up_;   // there while the pipe is open
  std::unique_ptr<Event> writable_;  // of a pipe that has to take the rest of a packet
};

/// An inject device: hands on every packet that is written into it.
class InjectDevice {
 public:
  using Taker = PacketReassembler::Taker;

  /// Null with the reason in `error` when the FIFO cannot be opened.
  static std::unique_ptr<InjectDevice> Open(event_base* base, uint8_t id,
                                            const std::filesystem::path& path, Taker taker,
                                            std::string& error);
  ~InjectDevice();
  InjectDevice(const InjectDevice&) = delete;
  InjectDevice& operator=(const InjectDevice&) = delete;

  /// Takes what is in the device now.
  void Read();
  uint8_t id() const { return id_; }
  const ReassemblyCounts& counts() const { return reassembler_.counts(); }

 private:
  InjectDevice(event_base* base, uint8_t id, int fd, Taker taker);

  const uint8_t id_;
  const int fd_;
  std::vector<std::byte> bytes_;
  PacketReassembler reassembler_;
  Event readable_;
};

}  // namespace kvox::sim
