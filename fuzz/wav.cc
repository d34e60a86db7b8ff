// The contents of a capture's file, for packets of any format, size and order, and a disk with
// partial and failing writes.

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "buffer/wav_file.h"
#include "fuzz/check.h"
#include "kvox/common/channel_runs.h"
#include "tests/buffer/recorded_file.h"

namespace kvox::fuzz {
namespace {

using Bytes = std::vector<std::byte>;

constexpr size_t kMaxPayload = 4096;

/// A disk whose writes may be partial or fail.
ssize_t AnyResult(FuzzedDataProvider& input, ssize_t asked) {
  const int choice = input.ConsumeIntegralInRange(0, 40);
  if (choice == 40) return input.ConsumeBool() ? -1 : 0;
  return choice < 36 ? asked : input.ConsumeIntegralInRange<ssize_t>(1, asked);
}

/// Sample by sample, from the format description alone. Returns the size of the whole groups in
/// bytes.
size_t NaiveInterleave(std::span<const std::byte> in, const ChannelRuns& runs,
                       std::span<std::byte> out) {
  const uint64_t group = uint64_t{runs.channels} * runs.samples * runs.bytes_per_sample;
  const size_t whole = static_cast<size_t>(in.size() / group * group);
  for (size_t at = 0; at < whole; ++at) {
    const size_t byte = at % runs.bytes_per_sample;
    const size_t sample = at / runs.bytes_per_sample;
    const size_t in_group = sample % (runs.channels * runs.samples);
    const size_t channel = in_group / runs.samples;
    const size_t frame = in_group % runs.samples;
    const size_t place = sample - in_group + frame * runs.channels + channel;
    out[place * runs.bytes_per_sample + byte] = in[at];
  }
  return whole;
}

Bytes MakePayload(FuzzedDataProvider& input, size_t size) {
  Bytes payload(size);
  const std::string text = input.ConsumeRandomLengthString(64);
  for (size_t i = 0; i < size; ++i) {
    payload[i] = std::byte(i < text.size() ? static_cast<uint8_t>(text[i]) : i * 7);
  }
  return payload;
}

void CheckConversion(FuzzedDataProvider& input) {
  const ChannelRuns runs = {.channels = input.ConsumeIntegralInRange<size_t>(1, 255),
                            .samples = input.ConsumeIntegralInRange<size_t>(1, 1u << 20),
                            .bytes_per_sample = input.ConsumeIntegralInRange<size_t>(1, 8)};
  const Bytes in = MakePayload(input, input.ConsumeIntegralInRange<size_t>(0, kMaxPayload));
  Bytes out(in.size(), std::byte{0xa5});
  Bytes expected = out;
  const size_t whole = NaiveInterleave(in, runs, expected);
  Check(InterleaveRuns(in, runs, out) == whole, "all whole groups are converted");
  Check(out == expected, "samples go to their frames, and nothing else is written");
}

KvoxTapFormat MakeFormat(FuzzedDataProvider& input) {
  KvoxTapFormat format;
  constexpr uint32_t kRates[] = {0, 8000, 48000, 192000, UINT32_MAX};
  constexpr uint8_t kSampleBytes[] = {2, 4, 4, 2, 0, 1, 3, 255};
  format.sample_rate = input.PickValueInArray(kRates);
  format.channels = input.ConsumeIntegralInRange<uint8_t>(0, 9);
  format.bytes_per_sample = input.PickValueInArray(kSampleBytes);
  format.data_format = input.ConsumeIntegralInRange<uint8_t>(0, 3);
  format.noninterleaved_samples = input.ConsumeBool() ? input.ConsumeIntegralInRange(0u, 64u)
                                                      : input.ConsumeIntegral<uint32_t>();
  return format;
}

/// Law has samples of a byte, too.
bool Usable(const KvoxTapFormat& format) {
  return format.sample_rate != 0 && format.channels != 0 && format.data_format <= 2 &&
         (format.bytes_per_sample == 2 || format.bytes_per_sample == 4 ||
          (format.bytes_per_sample == 1 && format.data_format == 2));
}

/// The expected bytes after the header.
class FileModel {
 public:
  explicit FileModel(const KvoxTapFormat& format) : format_(format) {}
  const KvoxTapFormat& format() const { return format_; }
  const Bytes& samples() const { return samples_; }
  uint64_t frames() const { return frames_; }

  void Add(const Bytes& payload) {
    if (payload.size() > converted_.size()) converted_.resize(payload.size());
    const bool in_runs = format_.channels > 1 && format_.noninterleaved_samples > 0;
    if (in_runs) {
      NaiveInterleave(payload,
                      {.channels = format_.channels,
                       .samples = format_.noninterleaved_samples,
                       .bytes_per_sample = format_.bytes_per_sample},
                      converted_);
    }
    const Bytes& from = in_runs ? converted_ : payload;
    samples_.insert(samples_.end(), from.begin(),
                    from.begin() + static_cast<ptrdiff_t>(payload.size()));
    frames_ += payload.size() / (size_t{format_.channels} * format_.bytes_per_sample);
  }

 private:
  const KvoxTapFormat format_;
  Bytes samples_;
  Bytes converted_;
  uint64_t frames_ = 0;
};

/// tests/common/wav_header_test.cc tests the header's bytes.
void CheckHeader(const std::string& file, const FileModel& model) {
  const KvoxTapFormat& format = model.format();
  const size_t frame = size_t{format.channels} * format.bytes_per_sample;
  constexpr WavFormat_t kFormats[] = {WavFormat_t::kPcm, WavFormat_t::kFloat, WavFormat_t::kMulaw};
  Check(file.starts_with(HeaderOf(static_cast<int>(format.sample_rate), format.channels,
                                  format.bytes_per_sample * 8, model.frames(),
                                  kFormats[format.data_format])),
        "a header has the packets' format and the size of the whole frames");
  Check(model.frames() * frame <= model.samples().size(), "a header claims what there is");
}

void CheckFile(FuzzedDataProvider& input) {
  FileScript disk;
  bool failed = false;
  disk.decide = [&](ssize_t asked) {
    const ssize_t result = AnyResult(input, asked);
    failed |= result <= 0;
    return result;
  };
  WavFile file("tapout0", std::make_unique<RecordedFile>(disk));
  std::optional<FileModel> model;
  bool ended = false;
  KvoxPacketHeader header;
  header.format = MakeFormat(input);
  while (input.remaining_bytes() > 0 && !failed) {
    if (input.ConsumeIntegralInRange(0, 15) == 0) header.format = MakeFormat(input);
    const Bytes payload =
        MakePayload(input, 4 * input.ConsumeIntegralInRange<size_t>(0, kMaxPayload / 4));
    header.payload_size = static_cast<uint32_t>(payload.size());
    file.writeCaptureWav(header, payload);
    if (failed) break;
    if (!model && !ended && Usable(header.format)) model.emplace(header.format);
    const bool same =
        model && std::memcmp(&model->format(), &header.format, sizeof header.format) == 0;
    if (same && !ended) model->Add(payload);
    if (model && !same) ended = true;
    Check(file.on() == !ended, "a file ends with the stream's format");
  }
  if (failed) {
    Check(!file.on(), "a write that fails ends the file");
    return;
  }
  Check(file.samples() == (model ? model->frames() : 0), "the frames in the file are counted");
  file.endCaptureWav();
  Check(!file.on(), "an ended file takes no more");
  if (failed) return;
  Check(disk.text.empty() == !model.has_value(), "only a usable format begins a file");
  if (!model) return;
  CheckHeader(disk.text, *model);
  Check(std::ranges::equal(std::as_bytes(std::span(disk.text)).subspan(sizeof(WavHeader)),
                           model->samples()),
        "the file has the samples as they passed");
}

}  // namespace
}  // namespace kvox::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  if (input.ConsumeBool()) {
    kvox::fuzz::CheckConversion(input);
  } else {
    kvox::fuzz::CheckFile(input);
  }
  return 0;
}
