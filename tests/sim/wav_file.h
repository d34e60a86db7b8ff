// WAV files for tests, written and read byte for byte in their own encoding.
#pragma once

#include <gtest/gtest.h>
#include <sndfile.h>

#include <filesystem>
#include <memory>
#include <vector>

namespace kvox::sim {

struct SoundFileCloser {
  void operator()(SNDFILE* file) const { sf_close(file); }
};
using SoundFile = std::unique_ptr<SNDFILE, SoundFileCloser>;

/// `samples` are written as they are.
template <typename Sample>
void WriteWav(const std::filesystem::path& path, int subtype, int channels,
              const std::vector<Sample>& samples, int rate = 48000) {
  SF_INFO info{.frames = 0,
               .samplerate = rate,
               .channels = channels,
               .format = SF_FORMAT_WAV | subtype,
               .sections = 0,
               .seekable = 0};
  const SoundFile file(sf_open(path.c_str(), SFM_WRITE, &info));
  ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
  sf_write_raw(file.get(), samples.data(),
               static_cast<sf_count_t>(samples.size() * sizeof(Sample)));
}

/// Every sample of a file whose encoding is `Sample`.
template <typename Sample>
std::vector<Sample> ReadWav(const std::filesystem::path& path, SF_INFO* info = nullptr) {
  SF_INFO own{};
  const SoundFile file(sf_open(path.c_str(), SFM_READ, &own));
  if (info != nullptr) *info = own;
  if (file == nullptr) {
    ADD_FAILURE() << sf_strerror(nullptr);
    return {};
  }
  std::vector<Sample> samples(static_cast<size_t>(own.frames * own.channels));
  sf_read_raw(file.get(), samples.data(), static_cast<sf_count_t>(samples.size() * sizeof(Sample)));
  return samples;
}

}  // namespace kvox::sim
