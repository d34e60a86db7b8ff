// Records a buffer's packets in a WAV file: decides which packets are taken, how their samples are
// laid out, and when the header is written.
//
// A recording is on from the start. The first packet with a usable format begins the file: 44 bytes
// of zeros, then the samples. It ends
// - with a complete header: by End(), or by a packet whose format differs from the first one's;
// - as it is: by a failed write, or with the object.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "buffer/capture_file.h"
#include "kvox/common/kvox_packet.h"

namespace kvox {

/// One thread at a time, never the packet path: it allocates, logs and writes.
class WavFile {
 public:
  /// `buffer` is the name of the buffer, for log lines. `file` is empty.
  WavFile(std::string buffer, std::unique_ptr<CaptureFile> file);

  /// Whether packets are still taken.
  bool on() const { return file_ != nullptr; }

  /// Samples per channel in the file.
  uint32_t samples() const { return samples_; }

  /// Adds the samples of a packet, interleaved. A payload is a multiple of 4 bytes long.
  void writeCaptureWav(const KvoxPacketHeader& header, std::span<const std::byte> payload);

  /// Ends the recording with a complete header, or as an empty file when no packet was taken.
  void endCaptureWav();

  /// Ends the recording as it is.
  void Abandon() { file_.reset(); }

 private:
  bool Begin(const KvoxTapFormat& format);
  std::span<const std::byte> Interleaved(std::span<const std::byte> payload);
  bool Write(std::span<const std::byte> bytes);
  void WriteHeader();

  const std::string buffer_;
  std::unique_ptr<CaptureFile> file_;
  std::optional<KvoxTapFormat> format_;  // of the first packet, once the file has a header
  uint32_t samples_ = 0;
  std::vector<std::byte> converted_;  // keeps its contents between packets
};

}  // namespace kvox
