#include "buffer/wav_file.h"

#include <algorithm>
#include <utility>

#include "kvox/common/channel_runs.h"
#include "kvox/common/log.h"
#include "kvox/common/wav_header.h"

namespace kvox {
namespace {

bool IsUsable(const KvoxTapFormat& format) {
  return format.sample_rate != 0 && format.channels != 0 &&
         (format.bytes_per_sample == 2 || format.bytes_per_sample == 4) &&
         format.data_format < kDataFormatCount;
}

bool SameFormat(const KvoxTapFormat& a, const KvoxTapFormat& b) {
  return a.sample_rate == b.sample_rate && a.channels == b.channels &&
         a.bytes_per_sample == b.bytes_per_sample && a.data_format == b.data_format &&
         a.noninterleaved_samples == b.noninterleaved_samples;
}

/// Writes everything, or returns the result of the write that failed.
std::optional<ssize_t> WriteAll(CaptureFile& file, std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const ssize_t written = file.Write(bytes);
    if (written <= 0) return written;
    bytes = bytes.subspan(static_cast<size_t>(written));
  }
  return std::nullopt;
}

}  // namespace

WavFile::WavFile(std::string buffer, std::unique_ptr<CaptureFile> file)
    : buffer_(std::move(buffer)), file_(std::move(file)) {}

void WavFile::writeCaptureWav(const KvoxPacketHeader& header, std::span<const std::byte> payload) {
  if (!on()) return;
  const KvoxTapFormat& format = header.format;
  if (!format_) {
    if (!IsUsable(format) || !Begin(format)) return;
  } else if (!SameFormat(*format_, format)) {
    LogError("%s: Format changed during capture!", buffer_.c_str());
    endCaptureWav();
    return;
  }
  if (payload.empty()) return;
  if (converted_.size() < payload.size()) converted_.resize(payload.size());
  const bool in_runs = format.channels >= 2 && format.noninterleaved_samples != 0;
  if (!Write(in_runs ? Interleaved(payload) : payload)) return;
  samples_ += FrameCount(format, static_cast<uint32_t>(payload.size()));
}

bool WavFile::Begin(const KvoxTapFormat& format) {
  const std::byte placeholder[sizeof(WavHeader)] = {};
  if (!Write(placeholder)) return false;
  format_ = format;
  samples_ = 0;
  return true;
}

/// For an incomplete group the conversion area keeps its earlier contents.
std::span<const std::byte> WavFile::Interleaved(std::span<const std::byte> payload) {
  InterleaveRuns(payload,
                 {.channels = format_->channels,
                  .samples = format_->noninterleaved_samples,
                  .bytes_per_sample = format_->bytes_per_sample},
                 converted_);
  return std::span(converted_).first(payload.size());
}

bool WavFile::Write(std::span<const std::byte> bytes) {
  const std::optional<ssize_t> failure = WriteAll(*file_, bytes);
  if (!failure) return true;
  LogError("%s %s: Error %ld", buffer_.c_str(), "writeCaptureWav", static_cast<long>(*failure));
  Abandon();
  return false;
}

void WavFile::endCaptureWav() {
  LogInfo("%s %s", buffer_.c_str(), "endCaptureWav");
  if (!on()) {
    LogInfo("%s %s: Capture is not enabled", buffer_.c_str(), "endCaptureWav");
    return;
  }
  if (format_) WriteHeader();
  file_.reset();
}

void WavFile::WriteHeader() {
  WavHeader header;
  InitHeaderWAV(&header, static_cast<int>(format_->sample_rate), format_->channels,
                format_->bytes_per_sample * 8, samples_,
                WavFormatOf(static_cast<Kvox::DataFormat>(format_->data_format)));
  const bool written = file_->Rewind() && !WriteAll(*file_, std::as_bytes(std::span(&header, 1)));
  if (!written) {
    LogError("%s %s: the header could not be written; the file begins with 44 zero bytes",
             buffer_.c_str(), "endCaptureWav");
  }
}

}  // namespace kvox
