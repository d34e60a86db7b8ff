// The open device of an enabled inject buffer, as the packet path sees it. Its last owner closes
// it, so no thread can write to a reused descriptor.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "buffer/device_io.h"
#include "buffer/packet_recorder.h"
#include "kvox/common/kvox_packet.h"
#include "kvox/flight/stream_log.h"
#include "processors/block.h"

namespace kvox {

/// Why a packet was not sent; -1 is a failure of the device itself.
enum PortStatus : int32_t {
  kPortOk = 0,
  kPortWriteFailed = -1,
  kPortClosed = -2,
  kPortPayloadTooLarge = -5,
};

/// How long the inject devices of one packet may hold up its I/O thread, all together: a quarter of
/// the packet's period, 5 ms if it has none. RT.
class SendPatience {
 public:
  SendPatience(const KvoxPacketHeader& header, IoWaiter& waiter)
      : header_(header), waiter_(waiter) {}

  /// Waits until `fd` can be written. False when no time is left, or the thread is needed
  /// elsewhere.
  bool WaitWritable(int fd);

  bool untouched() const { return !begun_; }
  bool used_up() const { return begun_ && left_ns_ == 0; }

 private:
  const KvoxPacketHeader& header_;
  IoWaiter& waiter_;
  bool begun_ = false;
  uint64_t left_ns_ = 0;
};

/// One I/O thread at a time, RT throughout, except construction and destruction.
///
/// A device that takes nothing for a whole patience is stalled. Until it takes a packet again, each
/// packet is offered to it once, without a wait: it costs the other devices nothing.
class InjectPort {
 public:
  /// Takes over `fd`. `io` and `recorder` outlive the port.
  InjectPort(std::string name, std::string device_path, DeviceIo& io, PacketRecorder& recorder,
             int fd, flight::InjectLog log = flight::InjectLog());
  ~InjectPort();
  InjectPort(const InjectPort&) = delete;
  InjectPort& operator=(const InjectPort&) = delete;

  const std::string& name() const { return name_; }

  /// What became of the packet that was sent last.
  flight::Written outcome() const { return outcome_; }
  const flight::InjectLog& log() const { return log_; }

  /// Where the payload of the next packet may be built; contains an earlier packet's.
  std::span<std::byte> PayloadArea(uint32_t size);

  /// Sends `header` and the payload that was built in PayloadArea().
  int32_t SendBuilt(const KvoxPacketHeader& header, SendPatience& patience);

  /// Sends `header` and the payload of `packet`, without copying it. The header of `packet` is
  /// replaced for the write and restored.
  int32_t SendInPlace(const KvoxPacketHeader& header, std::byte* packet, SendPatience& patience);

  /// For dumps: copies the packet that SendInPlace sent last into the work area, if that is the
  /// packet, header and all, whose payload is at `payload`; null for none.
  void KeepSentPacket(const std::byte* payload);

  /// Copies the packet that was sent last, with zeros behind it. False when it is gone: its place
  /// was needed for one that could not be sent. Not RT.
  bool CopyTo(std::vector<std::byte>& copy) const;

 private:
  int32_t Send(const KvoxPacketHeader& header, std::span<const std::byte> packet,
               SendPatience& patience);
  int32_t Offer(const KvoxPacketHeader& header, std::span<const std::byte> packet,
                SendPatience& patience);
  std::span<const std::byte> Write(std::span<const std::byte> packet, SendPatience& patience);
  void Reopen();

  const std::string name_;
  const std::string device_path_;
  DeviceIo& io_;
  PacketRecorder& recorder_;
  int fd_;  // -1 while the device cannot be reopened
  bool stalled_ = false;
  flight::InjectLog log_;
  flight::Written outcome_ = flight::Written::kNothing;
  const std::unique_ptr<std::byte[]> area_;

  enum class LastSent { kNothing, kInWorkArea, kInPlace, kGone };
  LastSent last_sent_ = LastSent::kNothing;
  const std::byte* in_place_payload_ = nullptr;
  KvoxPacketHeader in_place_header_;
};

}  // namespace kvox
