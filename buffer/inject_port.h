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
#include "processors/block.h"

namespace kvox {

/// Why a packet was not sent; -1 is a failure of the device itself.
enum PortStatus : int32_t {
  kPortOk = 0,
  kPortWriteFailed = -1,
  kPortClosed = -2,
  kPortPayloadTooLarge = -5,
};

/// One I/O thread at a time, RT throughout, except construction and destruction.
class InjectPort {
 public:
  /// Takes over `fd`. `io` and `recorder` outlive the port.
  InjectPort(std::string name, std::string device_path, DeviceIo& io, PacketRecorder& recorder,
             int fd);
  ~InjectPort();
  InjectPort(const InjectPort&) = delete;
  InjectPort& operator=(const InjectPort&) = delete;

  const std::string& name() const { return name_; }

  /// Where the payload of the next packet may be built; contains an earlier packet's.
  std::span<std::byte> PayloadArea(uint32_t size);

  /// Sends `header` and the payload that was built in PayloadArea().
  int32_t SendBuilt(const KvoxPacketHeader& header, IoWaiter& waiter);

  /// Sends `header` and the payload of `packet`, without copying it. The header of `packet` is
  /// replaced for the write and restored.
  int32_t SendInPlace(const KvoxPacketHeader& header, std::byte* packet, IoWaiter& waiter);

  /// For dumps: copies the packet that SendInPlace sent last into the work area. `payload` is where
  /// its payload still is, null when it has been overwritten.
  void KeepSentPacket(const std::byte* payload);

  /// Copies the work area. False when the packet sent last is not in it. Not RT.
  bool CopyTo(std::vector<std::byte>& copy) const;

 private:
  int32_t Send(const KvoxPacketHeader& header, std::span<const std::byte> packet, IoWaiter& waiter);
  void Reopen();

  const std::string name_;
  const std::string device_path_;
  DeviceIo& io_;
  PacketRecorder& recorder_;
  int fd_;  // -1 while the device cannot be reopened
  const std::unique_ptr<std::byte[]> area_;

  bool sent_in_place_ = false;  // the packet sent last is not in the work area
  KvoxPacketHeader in_place_header_;
};

}  // namespace kvox
