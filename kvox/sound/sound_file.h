// Sound files, through libsndfile. The library is loaded when the first file is opened: it pulls in
// many others, and most runs of the programs need none.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "kvox/common/tap_format.h"

struct sf_private_tag;

namespace kvox {

/// The text names the file and the cause.
class SoundFileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Interleaved audio.
struct SoundFormat {
  uint32_t sample_rate = 0;  // Hz
  uint32_t channels = 0;
  uint32_t bits = 0;  // of a sample
  Kvox::DataFormat encoding = Kvox::DataFormat::INT;

  size_t FrameSize() const { return size_t{channels} * (bits / 8); }
  bool operator==(const SoundFormat&) const = default;
};

/// "48000 Hz, 2 channels, int16"
std::string Describe(const SoundFormat& format);

struct SoundFileCloser {
  void operator()(sf_private_tag* file) const;
};
using SoundFileHandle = std::unique_ptr<sf_private_tag, SoundFileCloser>;

/// A WAV file that is being written. It is valid at any moment: every write updates its header.
class SoundWriter {
 public:
  /// Replaces the regular file at `path`. Throws SoundFileError.
  SoundWriter(const std::string& path, const SoundFormat& format);

  /// Throws SoundFileError.
  void Write(std::span<const std::byte> frames);

 private:
  std::string path_;
  SoundFileHandle file_;
};

/// Audio in any format that libsndfile reads. One thread at a time.
class SoundReader {
 public:
  enum class Kind {
    kFile,       // a regular one, readable from any frame
    kAlsoPipes,  // which can be read once, from their begin
  };

  /// Throws SoundFileError.
  explicit SoundReader(const std::string& path, Kind kind = Kind::kFile);

  uint32_t sample_rate() const { return sample_rate_; }
  uint32_t channels() const { return channels_; }
  uint64_t frame_count() const { return frame_count_; }

  /// Chooses the format in which Read() returns audio. Mono goes to every channel; apart from that,
  /// rate and channels have to be the file's. Integers of other widths are exact or truncated,
  /// floats are rounded and clipped. Only mu-law becomes mu-law. Throws SoundFileError.
  void ConvertTo(const SoundFormat& format);
  bool CanConvertTo(const SoundFormat& format) const;

  /// The next Read() begins at this frame.
  void Seek(uint64_t frame);

  /// Fills `frames`, with silence after the end of the file. Returns how many bytes are the file's;
  /// 0 at its end.
  size_t Read(std::span<std::byte> frames);

  /// Fills `samples` with all channels of the file, 1.0 being full scale. Returns the number of
  /// frames; 0 at the end.
  size_t ReadDoubles(std::span<double> samples);

 private:
  size_t ReadSamples(size_t count);

  std::string path_;
  SoundFileHandle file_;
  int subtype_ = 0;
  uint32_t sample_rate_ = 0;
  uint32_t channels_ = 0;
  uint64_t frame_count_ = 0;
  uint64_t position_ = 0;  // in frames
  SoundFormat format_;
  std::vector<std::byte> samples_;  // in that format, with the file's channels
  std::vector<int> ints_;
  std::vector<double> doubles_;
};

}  // namespace kvox
