// kvosim record: mirrors the nodes of a co-processor into another directory, passes everything on,
// and records it.
#pragma once

#include <filesystem>

#include "sim/recording/recording_file.h"

namespace kvox::sim {

struct RecordOptions {
  std::filesystem::path from;
  std::filesystem::path to;
  RecordingOptions recording;
  double seconds = 0;  // 0: until a signal
};

/// Records until SIGINT, SIGTERM or SIGHUP. Returns the exit status. Throws std::runtime_error when
/// a directory or the file cannot be used.
int Record(const RecordOptions& options);

}  // namespace kvox::sim
