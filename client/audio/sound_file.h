// Sound files, through libsndfile. The library is loaded when the first file is opened: it brings
// many others along, and kvoxctl's other verbs live for a millisecond.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>

#include "kvox/common/tap_format.h"

struct sf_private_tag;

namespace kvox::client {

/// The text names the file and the cause.
class SoundFileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Interleaved audio, in the way a relay's client gets and sends it.
struct StreamFormat {
  uint32_t sample_rate = 0;  // Hz
  uint32_t channels = 0;
  uint32_t bits = 0;  // a sample
  Kvox::DataFormat encoding = Kvox::DataFormat::INT;

  size_t FrameSize() const { return size_t{channels} * (bits / 8); }
  bool operator==(const StreamFormat&) const = default;
};

/// "48000 Hz, 2 channels, int16"
std::string Describe(const StreamFormat& format);

/// A WAV file under construction. It is valid at any moment: its header follows every write.
class SoundWriter {
 public:
  /// Replaces what is at `path`. Throws SoundFileError.
  SoundWriter(const std::string& path, const StreamFormat& format);

  /// Throws SoundFileError.
  void Write(std::span<const std::byte> frames);

 private:
  struct Closer {
    void operator()(sf_private_tag* file) const;
  };
  const std::string path_;
  std::unique_ptr<sf_private_tag, Closer> file_;
};

/// A file that is played from its beginning to its end.
class SoundReader {
 public:
  /// Any format libsndfile reads. Throws SoundFileError.
  explicit SoundReader(const std::string& path);

  /// Decides in which format Read answers. Mono goes to every channel; apart from that rate and
  /// channels have to be the file's. Throws SoundFileError.
  void ConvertTo(const StreamFormat& format);

  /// Fills `frames`, with silence behind the file's end. Answers how many bytes are the file's; 0
  /// at its end.
  size_t Read(std::span<std::byte> frames);

  uint64_t frame_count() const { return frame_count_; }

 private:
  struct Closer {
    void operator()(sf_private_tag* file) const;
  };
  template <typename Sample, typename Function>
  size_t ReadAs(std::span<std::byte> frames, Function function);

  std::string path_;
  std::unique_ptr<sf_private_tag, Closer> file_;
  uint64_t frame_count_ = 0;
  uint32_t file_rate_ = 0;
  uint32_t file_channels_ = 0;
  StreamFormat format_;
};

}  // namespace kvox::client
