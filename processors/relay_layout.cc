#include "processors/relay_layout.h"

#include <algorithm>
#include <cstring>

#include "kvox/common/channel_runs.h"

namespace kvox {
namespace {

/// Transposes the groups of a block between runs of `run` samples and frames. A last, incomplete
/// group has runs of the frames that are left.
template <typename Group>
void ConvertRuns(std::span<const std::byte> in, const KvoxTapFormat& tap, Group group,
                 std::span<std::byte> out) {
  const size_t frame = size_t{tap.channels} * tap.bytes_per_sample;
  size_t done = 0;
  if (tap.channels > 1 && tap.noninterleaved_samples > 1 && frame > 0) {
    done = InterleaveRuns(in, group(tap.noninterleaved_samples), out);
    if (const size_t left = (in.size() - done) / frame; left > 0) {
      done += InterleaveRuns(in.subspan(done), group(left), out.subspan(done));
    }
  }
  std::memcpy(out.data() + done, in.data() + done, in.size() - done);
}

}  // namespace

void TakeFirstChannel(std::span<const std::byte> tap, uint32_t channels,
                      std::span<std::byte> mono) {
  constexpr size_t kRun = kTelephonyRun * kTelephonySampleSize;
  for (size_t at = 0; at < mono.size(); at += kRun) {
    const size_t size = std::min(kRun, mono.size() - at);
    std::memcpy(mono.data() + at, tap.data() + at * channels, size);
  }
}

void SpreadOverChannels(std::span<const std::byte> mono, uint32_t channels,
                        std::span<std::byte> tap) {
  constexpr size_t kRun = kTelephonyRun * kTelephonySampleSize;
  for (size_t at = 0; at < mono.size(); at += kRun) {
    const size_t size = std::min(kRun, mono.size() - at);
    for (size_t channel = 0; channel < channels; ++channel) {
      std::memcpy(tap.data() + at * channels + channel * size, mono.data() + at, size);
    }
  }
}

void ToInterleaved(std::span<const std::byte> in, const KvoxTapFormat& tap,
                   std::span<std::byte> out) {
  const auto group = [&tap](size_t run) {
    return ChannelRuns{
        .channels = tap.channels, .samples = run, .bytes_per_sample = tap.bytes_per_sample};
  };
  ConvertRuns(in, tap, group, out);
}

// The reverse is the same transposition: a frame is a run of one sample of each channel.
void FromInterleaved(std::span<const std::byte> in, const KvoxTapFormat& tap,
                     std::span<std::byte> out) {
  const auto group = [&tap](size_t run) {
    return ChannelRuns{
        .channels = run, .samples = tap.channels, .bytes_per_sample = tap.bytes_per_sample};
  };
  ConvertRuns(in, tap, group, out);
}

}  // namespace kvox
