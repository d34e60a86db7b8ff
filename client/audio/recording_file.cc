#include "client/audio/recording_file.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <utility>

#include "client/audio/session.h"
#include "client/system/files.h"
#include "kvox/common/fixed_text.h"
#include "kvox/common/wav_header.h"
#include "libkvox/errors.h"

namespace kvox::client {
namespace {

struct KindRow {
  const char* format;
  const char* ending;
  FileKind kind;
};
constexpr KindRow kKinds[] = {{"wav", ".wav", FileKind::kWav},
                              {"flac", ".flac", FileKind::kFlac},
                              {"raw", ".raw", FileKind::kRaw}};

/// A header for audio of unknown length, as programs that read pipes expect it.
WavHeader EndlessHeader(const SoundFormat& format) {
  WavHeader header = {};
  InitHeaderWAV(&header, static_cast<int>(format.sample_rate), static_cast<int>(format.channels),
                static_cast<int>(format.bits), 0, WavFormatOf(format.encoding));
  header.riff_size = UINT32_MAX;
  header.data_size = UINT32_MAX - static_cast<uint32_t>(sizeof header);
  return header;
}

}  // namespace

FileKind KindOfFile(const std::string& path, const std::string& format) {
  for (const KindRow& row : kKinds) {
    if (format == row.format || (format.empty() && path.ends_with(row.ending))) return row.kind;
  }
  if (format.empty() && path == kPipe) return FileKind::kWav;
  throw UsageError(
      "FILE: '" + ValidUtf8(path) +
      "' does not end with .wav, .flac or .raw; --format wav, flac or raw says what to "
      "write");
}

RecordingFile::RecordingFile(std::string path, FileKind kind, std::function<bool()> interrupted)
    : path_(std::move(path)), kind_(kind), interrupted_(std::move(interrupted)) {
  if (kind_ == FileKind::kFlac && path_ == kPipe) {
    throw UsageError("FILE: FLAC cannot be written to a pipe; use --format wav or raw");
  }
}

void RecordingFile::Begin(const SoundFormat& format) {
  if (kind_ == FileKind::kFlac && (format.encoding != Kvox::DataFormat::INT || format.bits > 24)) {
    throw UsageError("FILE: FLAC cannot hold " + Describe(format) + "; name a .wav file");
  }
  begun_ = true;
  if (path_ == kPipe) {
    const WavHeader header = EndlessHeader(format);
    if (kind_ == FileKind::kWav) WriteBytes(std::as_bytes(std::span(&header, 1)));
  } else if (kind_ == FileKind::kRaw) {
    file_ =
        UniqueFd(open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, 0666));
    if (!file_.valid()) {
      throw SoundFileError("'" + path_ + "' cannot be created (" + ErrorText(errno).c_str() + ")");
    }
  } else {
    sound_.emplace(
        path_, format,
        kind_ == FileKind::kWav ? SoundWriter::Container::kWav : SoundWriter::Container::kFlac);
  }
}

/// No more at a time than a pipe takes without waiting once it takes anything.
bool RecordingFile::WriteToPipe(std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    pollfd pipe = {.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
    if (poll(&pipe, 1, kStep.count()) == 0) {
      if (interrupted_()) return false;
      continue;
    }
    const auto part = bytes.first(std::min<size_t>(bytes.size(), PIPE_BUF));
    if (!WriteAll(STDOUT_FILENO, part.data(), part.size())) {
      if (errno == EPIPE) return false;
      throw SoundFileError(std::string("standard output cannot be written (") +
                           ErrorText(errno).c_str() + "); see where it goes");
    }
    bytes = bytes.subspan(part.size());
  }
  return true;
}

bool RecordingFile::WriteBytes(std::span<const std::byte> bytes) {
  if (path_ == kPipe) return WriteToPipe(bytes);
  if (WriteAll(file_.get(), bytes.data(), bytes.size())) return true;
  throw SoundFileError("'" + path_ + "' cannot be written (" + ErrorText(errno).c_str() + ")");
}

bool RecordingFile::Write(const SoundFormat& format, std::span<const std::byte> frames) {
  if (!begun_) Begin(format);
  if (!sound_) return WriteBytes(frames);
  sound_->Write(frames);
  return true;
}

void RecordingFile::Close() {
  if (sound_) sound_->Close();
}

}  // namespace kvox::client
