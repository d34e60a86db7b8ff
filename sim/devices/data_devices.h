// The data devices: FIFOs, written and read by the event loop's thread without ever blocking it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sim/coprocessor/tap_stream.h"
#include "sim/devices/packet_port.h"
#include "sim/devices/packet_reassembler.h"
#include "sim/event.h"

namespace kvox::sim {

/// A tap-out device: carries the stream of at most one tap.
class TapOutDevice {
 public:
  TapOutDevice(event_base* base, uint8_t id, const std::filesystem::path& path,
               const StreamOptions& options, FaultPlan& plan, Journal& journal);

  /// Streams `tap` from now on, nothing when null; a stream of that tap that runs goes on.
  void Attach(Tap* tap);
  /// Closes the device, which ends the stream for its reader, and keeps it closed until it may be
  /// opened again.
  void Bar(bool barred);
  bool barred() const { return writer_.barred(); }
  uint8_t id() const { return id_; }

 private:
  void Run();
  void OnPipe();
  void Watch();
  void Close();

  event_base* const base_;
  const uint8_t id_;
  const StreamOptions options_;
  FaultPlan& plan_;
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

  InjectDevice(event_base* base, uint8_t id, std::filesystem::path path, Taker taker)
      : base_(base), id_(id), path_(std::move(path)), reassembler_(std::move(taker)) {}
  ~InjectDevice() { Close(); }
  InjectDevice(const InjectDevice&) = delete;
  InjectDevice& operator=(const InjectDevice&) = delete;

  /// False with the reason in `error` when the FIFO cannot be opened. Nothing happens when it is
  /// open.
  bool Open(std::string& error);
  /// Takes what is in the device and leaves its writer without a reader.
  void Close();
  /// While it stalls it is open but takes nothing.
  void Stall(bool stalled);
  /// Takes what is in the device now.
  void Read();
  uint8_t id() const { return id_; }
  const ReassemblyCounts& counts() const { return reassembler_.counts(); }

 private:
  event_base* const base_;
  const uint8_t id_;
  const std::filesystem::path path_;
  int fd_ = -1;
  bool stalled_ = false;
  std::vector<std::byte> bytes_;
  PacketReassembler reassembler_;
  std::unique_ptr<Event> readable_;  // there while it is open
};

}  // namespace kvox::sim
