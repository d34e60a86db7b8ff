// Between "a packet is due" and "its bytes are in the device". One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <vector>

#include "kvox/common/kvox_packet.h"

namespace kvox::sim {

/// Bytes that a device's pipe should hold: a few of the longest packets. Not every user may have
/// it; a pipe is then what it is.
inline constexpr int kPipeSize = 4 * kPacketMaxSize;

/// Where the packets of one tap-out device go.
class PacketPort {
 public:
  enum class Result {
    kSent,
    kDropped,   // there is no room for a whole packet
    kNoReader,  // whoever listened has gone
  };

  virtual ~PacketPort() = default;

  /// Whether somebody listens.
  virtual bool HasReader() = 0;
  /// Takes one packet: all of it or nothing.
  virtual Result Offer(std::span<const std::byte> packet) = 0;
};

/// The writing end of a FIFO, open only while the other end is. It never blocks. When the pipe
/// takes a part of a packet only, the rest is kept and goes before anything else. The process has
/// to ignore SIGPIPE.
class FifoWriter : public PacketPort {
 public:
  explicit FifoWriter(std::filesystem::path path) : path_(std::move(path)) {}
  ~FifoWriter() override { Close(); }
  FifoWriter(const FifoWriter&) = delete;
  FifoWriter& operator=(const FifoWriter&) = delete;

  bool HasReader() override;
  Result Offer(std::span<const std::byte> packet) override;

  /// Puts what the pipe now takes of a packet's rest.
  Result Flush();
  /// -1 while closed.
  int fd() const { return fd_; }
  bool has_rest() const { return !rest_.empty(); }
  /// The reader has gone; to be closed.
  bool hung_up() const { return hung_up_; }
  void Close();
  /// While it is barred it is closed and finds no reader.
  void Bar(bool barred) { barred_ = barred; }
  bool barred() const { return barred_; }

 private:
  const std::filesystem::path path_;
  int fd_ = -1;
  bool hung_up_ = false;
  bool barred_ = false;
  std::vector<std::byte> rest_;
};

}  // namespace kvox::sim
