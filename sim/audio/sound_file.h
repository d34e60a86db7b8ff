// Sound files through libsndfile, closed when they go out of scope.
#pragma once

#include <sndfile.h>

#include <filesystem>
#include <memory>
#include <string>

namespace kvox::sim {

struct SoundFileCloser {
  void operator()(SNDFILE* file) const { sf_close(file); }
};
using SoundFile = std::unique_ptr<SNDFILE, SoundFileCloser>;

/// Opens a sound file for reading and fills `info`; null with the reason in `error`.
SoundFile OpenSoundFile(const std::filesystem::path& path, SF_INFO& info, std::string& error);

}  // namespace kvox::sim
