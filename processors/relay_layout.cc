#include "processors/relay_layout.h"

#include <algorithm>
#include <cstring>

namespace kvox {
namespace {

/// Calls `move(interleaved offset, run offset)` for every sample of a block of `size` bytes, and
/// answers where the last whole frame ends.
template <typename Move>
size_t ForEachSample(size_t size, const KvoxTapFormat& tap, Move move) {
  const size_t sample = tap.bytes_per_sample;
  const size_t frame = sample * tap.channels;
  const size_t frames = frame == 0 ? 0 : size / frame;
  for (size_t first = 0; first < frames;) {
    const size_t run = std::min<size_t>(tap.noninterleaved_samples, frames - first);
    for (size_t channel = 0; channel < tap.channels; ++channel) {
      for (size_t at = 0; at < run; ++at) {
        move((first + at) * frame + channel * sample,
             first * frame + (channel * run + at) * sample);
      }
    }
    first += run;
  }
  return frames * frame;
}

bool HasRuns(const KvoxTapFormat& tap) {
  return tap.channels > 1 && tap.noninterleaved_samples > 1;
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
  size_t done = 0;
  if (HasRuns(tap)) {
    done = ForEachSample(in.size(), tap, [&](size_t interleaved, size_t in_run) {
      std::memcpy(&out[interleaved], &in[in_run], tap.bytes_per_sample);
    });
  }
  std::memcpy(out.data() + done, in.data() + done, in.size() - done);
}

void FromInterleaved(std::span<const std::byte> in, const KvoxTapFormat& tap,
                     std::span<std::byte> out) {
  size_t done = 0;
  if (HasRuns(tap)) {
    done = ForEachSample(in.size(), tap, [&](size_t interleaved, size_t in_run) {
      std::memcpy(&out[in_run], &in[interleaved], tap.bytes_per_sample);
    });
  }
  std::memcpy(out.data() + done, in.data() + done, in.size() - done);
}

}  // namespace kvox
