#include "buffer/wav_file.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "kvox/common/channel_runs.h"
#include "kvox/common/fixed_text.h"
#include "kvox/common/log.h"
#include "kvox/common/wav_header.h"

namespace kvox {
namespace {

bool IsUsable(const KvoxTapFormat& format) {
  const bool bytes_of_law = format.bytes_per_sample == 1 &&
                            Kvox::DataFormat{format.data_format} == Kvox::DataFormat::SULAW;
  return format.sample_rate != 0 && format.channels != 0 &&
         (format.bytes_per_sample == 2 || format.bytes_per_sample == 4 || bytes_of_law) &&
         format.data_format < kDataFormatCount;
}

bool SameFormat(const KvoxTapFormat& a, const KvoxTapFormat& b) {
  return a.sample_rate == b.sample_rate && a.channels == b.channels &&
         a.bytes_per_sample == b.bytes_per_sample && a.data_format == b.data_format &&
         a.noninterleaved_samples == b.noninterleaved_samples;
}

WavHeader HeaderOf(const KvoxTapFormat& format, uint32_t samples) {
  WavHeader header;
  InitHeaderWAV(&header, static_cast<int>(format.sample_rate), format.channels,
                format.bytes_per_sample * 8, samples,
                WavFormatOf(static_cast<Kvox::DataFormat>(format.data_format)));
  return header;
}

}  // namespace

uint32_t SampleCounter::Count(const KvoxPacketHeader& header) {
  if (ended_ || (!format_ && !IsUsable(header.format))) return 0;
  if (!format_) format_ = header.format;
  ended_ = !SameFormat(*format_, header.format);
  return ended_ ? 0 : FrameCount(header.format, header.payload_size);
}

WavFile::WavFile(std::string buffer, std::unique_ptr<CaptureFile> file)
    : buffer_(std::move(buffer)), file_(std::move(file)) {}

void WavFile::writeCaptureWav(const KvoxPacketHeader& header, std::span<const std::byte> payload) {
  if (!on()) return;
  const KvoxTapFormat& format = header.format;
  if (!format_) {
    if (!IsUsable(format) || !Begin(format)) return;
  } else if (!SameFormat(*format_, format)) {
    LogError("%s: Format changed during capture!", buffer_.c_str());
    trouble_ = "the format changed";
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
  const WavHeader header = HeaderOf(format, 0);
  if (!Write(std::as_bytes(std::span(&header, 1)))) return false;
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

/// A failure ends the file behind the last whole sample.
bool WavFile::Write(std::span<const std::byte> bytes) {
  std::span<const std::byte> rest = bytes;
  ssize_t written = 0;
  while (!rest.empty() && (written = file_->Write(rest)) > 0) {
    rest = rest.subspan(static_cast<size_t>(written));
  }
  if (rest.empty()) return true;
  trouble_ = written < 0 ? ErrorText(errno).c_str() : "the file takes no more";
  LogError("%s %s: Error %ld", buffer_.c_str(), "writeCaptureWav", static_cast<long>(written));
  if (format_) {
    samples_ += FrameCount(*format_, static_cast<uint32_t>(bytes.size() - rest.size()));
    const uint64_t frame = uint64_t{format_->channels} * format_->bytes_per_sample;
    if (!file_->CutTo(sizeof(WavHeader) + samples_ * frame) || !WriteHeader()) {
      LogError("%s %s: the header could not be written", buffer_.c_str(), "writeCaptureWav");
    }
  } else {
    static_cast<void>(file_->CutTo(0));  // nothing was recorded
  }
  file_.reset();
  return false;
}

void WavFile::endCaptureWav() {
  LogInfo("%s %s", buffer_.c_str(), "endCaptureWav");
  if (!on()) {
    LogInfo("%s %s: Capture is not enabled", buffer_.c_str(), "endCaptureWav");
    return;
  }
  if (format_ && !WriteHeader()) {
    LogError("%s %s: the header could not be written; it may count too few samples",
             buffer_.c_str(), "endCaptureWav");
  }
  file_.reset();
}

void WavFile::UpdateHeader() {
  if (on() && format_ && samples_ != samples_in_header_) static_cast<void>(WriteHeader());
}

bool WavFile::WriteHeader() {
  const WavHeader header = HeaderOf(*format_, samples_);
  if (!file_->WriteStart(std::as_bytes(std::span(&header, 1)))) return false;
  samples_in_header_ = samples_;
  return true;
}

}  // namespace kvox
