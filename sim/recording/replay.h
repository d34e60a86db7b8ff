// kvosim replay: plays the co-processor's side of a recording.
#pragma once

#include <cstdint>
#include <filesystem>

namespace kvox::sim {

struct ReplayOptions {
  std::filesystem::path file;
  double speed = 1;
  double from_s = 0;  // since the recording's begin
  bool loop = false;
  bool check = false;
};

/// Plays until the end, or SIGINT, SIGTERM or SIGHUP; prints what was different. Returns the exit
/// status: 0, with `check` 1 when the daemon has sent something else than in the recording. Throws
/// std::runtime_error when the recording or the directory cannot be used.
int Replay(const std::filesystem::path& directory, const ReplayOptions& options);

}  // namespace kvox::sim
