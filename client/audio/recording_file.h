// The file, or pipe, that a recording goes to.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "kvox/common/unique_fd.h"
#include "kvox/sound/sound_file.h"

namespace kvox::client {

/// For standard output.
inline constexpr char kPipe[] = "-";

enum class FileKind { kWav, kFlac, kRaw };

/// By `format` ("wav", "flac", "raw"), or where that is "" by the name's ending; "-" is WAV. Throws
/// UsageError.
FileKind KindOfFile(const std::string& path, const std::string& format);

/// One thread.
class RecordingFile {
  static constexpr uint64_t kLongestWav = 0xFF00'0000;  // the rest is for marks

 public:
  /// Raw is the samples alone, little-endian and interleaved. Throws UsageError for FLAC into a
  /// pipe.
  /// `interrupted` ends the wait for a pipe's reader.
  RecordingFile(
      std::string path, FileKind kind, std::function<bool()> interrupted = [] { return false; });

  /// Creates the file with the first frames. False when the pipe's reader has gone, or an interrupt
  /// has come while it did not read. Throws UsageError for a format that the file cannot hold, and
  /// SoundFileError when nothing more can be written; what was written before stays, and is valid.
  bool Write(const SoundFormat& format, std::span<const std::byte> frames);

  /// Ends it. Throws SoundFileError.
  void Close();

  const std::string& path() const { return path_; }
  /// How many bytes of audio it can hold: the sizes in a WAV file have 32 bits.
  uint64_t longest() const { return can_hold_marks() ? kLongestWav : UINT64_MAX; }
  bool can_hold_marks() const { return kind_ == FileKind::kWav && path_ != kPipe; }

 private:
  void Begin(const SoundFormat& format);
  bool WriteBytes(std::span<const std::byte> bytes);
  bool WriteToPipe(std::span<const std::byte> bytes);

  const std::string path_;
  const FileKind kind_;
  const std::function<bool()> interrupted_;
  bool begun_ = false;
  std::optional<SoundWriter> sound_;
  UniqueFd file_;  // of a raw file
};

}  // namespace kvox::client
