// Records a buffer's packets in a WAV file: decides which packets are taken, how their samples are
// laid out, and when the header is written.
//
// A recording is on from the start. The first packet with a usable format begins the file. It ends
// by endCaptureWav(), by a packet whose format differs from the first one's, or by a failed write;
// in each case with a header that fits what is in it.
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

/// How many samples per channel a file will get from packets in this order. RT; one thread at a
/// time.
class SampleCounter {
 public:
  uint32_t Count(const KvoxPacketHeader& header);

 private:
  std::optional<KvoxTapFormat> format_;  // of the first packet that is taken
  bool ended_ = false;
};

/// One thread at a time, never the packet path: it allocates, logs and writes.
class WavFile {
 public:
  /// `buffer` is the name of the buffer, for log lines. `file` is empty.
  WavFile(std::string buffer, std::unique_ptr<CaptureFile> file);

  /// Whether packets are still taken.
  bool on() const { return file_ != nullptr; }

  /// Why it takes no more by itself; "" while it does.
  const std::string& trouble() const { return trouble_; }

  /// Samples per channel in the file.
  uint32_t samples() const { return samples_; }

  /// Adds the samples of a packet, interleaved. A payload is a multiple of 4 bytes long.
  void writeCaptureWav(const KvoxPacketHeader& header, std::span<const std::byte> payload);

  /// Ends the recording with a complete header, or as an empty file when no packet was taken.
  void endCaptureWav();

  /// Makes the header fit the samples so far: a file is whole also if the process ends here.
  void UpdateHeader();

 private:
  bool Begin(const KvoxTapFormat& format);
  std::span<const std::byte> Interleaved(std::span<const std::byte> payload);
  bool Write(std::span<const std::byte> bytes);
  bool WriteHeader();

  const std::string buffer_;
  std::unique_ptr<CaptureFile> file_;
  std::optional<KvoxTapFormat> format_;  // of the first packet, once the file has a header
  std::string trouble_;
  uint32_t samples_ = 0;
  uint32_t samples_in_header_ = 0;
  std::vector<std::byte> converted_;  // keeps its contents between packets
};

}  // namespace kvox
