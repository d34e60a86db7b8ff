// The data devices: FIFOs. Event loop's thread; they never block it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "kvox/common/unique_fd.h"
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

  /// Streams `tap` from now on, nothing when null; a running stream of that tap continues.
  void Attach(Tap* tap);
  /// While it is disabled the device is closed, which ends the stream for its reader.
  void SetDisabled(bool disabled);
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
  InjectDevice(event_base* base, uint8_t id, std::filesystem::path path,
               PacketReassembler::Callback on_packet)
      : base_(base), id_(id), path_(std::move(path)), reassembler_(std::move(on_packet)) {}

  /// Does nothing when it is open. Throws std::runtime_error.
  void Open();
  /// Takes what is in the device and leaves its writer without a reader.
  void Close();
  /// While it stalls it is open but takes nothing.
  void SetStalled(bool stalled);
  /// Takes what is in the device now.
  void Read();
  uint8_t id() const { return id_; }
  const ReassemblyCounts& counts() const { return reassembler_.counts(); }

 private:
  event_base* const base_;
  const uint8_t id_;
  const std::filesystem::path path_;
  UniqueFd fd_;
  bool stalled_ = false;
  std::vector<std::byte> bytes_;
  PacketReassembler reassembler_;
  std::unique_ptr<Event> readable_;  // there while it is open
};

}  // namespace kvox::sim
