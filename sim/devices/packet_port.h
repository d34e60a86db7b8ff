// Writes due packets into a device. One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <utility>
#include <vector>

#include "kvox/common/kvox_packet.h"
#include "kvox/common/unique_fd.h"

namespace kvox::sim {

/// Bytes that a device's pipe should hold: a few of the longest packets. Not every user may set
/// it; a pipe then keeps its size.
inline constexpr int kPipeSize = 4 * kPacketMaxSize;

/// Where the packets of one tap-out device go.
class PacketPort {
 public:
  enum class Result {
    kSent,
    kDropped,   // there is no room for a whole packet
    kNoReader,  // the reader is gone
  };

  virtual ~PacketPort() = default;

  virtual bool HasReader() = 0;
  /// Takes one packet: all of it or nothing.
  virtual Result Offer(std::span<const std::byte> packet) = 0;
};

/// The writing end of a FIFO, open only while the other end is. It never blocks. When the pipe
/// takes only part of a packet, the rest is kept and sent before anything else. The process must
/// ignore SIGPIPE.
class FifoWriter : public PacketPort {
 public:
  explicit FifoWriter(std::filesystem::path path) : path_(std::move(path)) {}

  bool HasReader() override;
  Result Offer(std::span<const std::byte> packet) override;

  /// Writes what the pipe now takes of a packet's rest.
  Result Flush();
  /// -1 while closed.
  int fd() const { return fd_.get(); }
  bool has_rest() const { return !rest_.empty(); }
  /// The reader is gone; to be closed.
  bool hung_up() const { return hung_up_; }
  void Close();
  /// While it is disabled it does not open.
  void SetDisabled(bool disabled) { disabled_ = disabled; }
  bool disabled() const { return disabled_; }

 private:
  const std::filesystem::path path_;
  UniqueFd fd_;
  bool hung_up_ = false;
  bool disabled_ = false;
  std::vector<std::byte> rest_;
};

}  // namespace kvox::sim
