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

#include "kvox/common/sound_format.h"

struct sf_private_tag;

namespace kvox {

/// The text names the file and the cause.
class SoundFileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct SoundFileCloser {
  void operator()(sf_private_tag* file) const;
};
using SoundFileHandle = std::unique_ptr<sf_private_tag, SoundFileCloser>;

/// A sound file that is being written. A WAV file is valid at any moment: every write updates its
/// header.
class SoundWriter {
 public:
  enum class Container { kWav, kFlac };

  /// Replaces the regular file at `path`. Throws SoundFileError, also for a format that the
  /// container cannot hold: FLAC holds integers of 16 and 24 bits.
  SoundWriter(const std::string& path, const SoundFormat& format,
              Container container = Container::kWav);

  /// Throws SoundFileError.
  void Write(std::span<const std::byte> frames);

  /// Ends the file. Throws SoundFileError when it could not be completed.
  void Close();

 private:
  std::string path_;
  SoundFormat format_;
  Container container_;
  SoundFileHandle file_;
  std::vector<int> ints_;
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
