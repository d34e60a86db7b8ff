// Whether a recording holds what was played, sample for sample.
#pragma once

#include <filesystem>

namespace kvox::sim {

/// Compares the samples of `source`, from its first on, with those at the start of `recorded`; with
/// `skip_silence` with those at the place where the first sound of both falls together. The shorter
/// of both ends the comparison. A source with one channel is compared with every channel.
/// Says on standard output how it went. Answers 0 when every sample is the same and there was at
/// least one, 1 when not, 2 when a file cannot be read (told on standard error).
int CompareFiles(const std::filesystem::path& source, const std::filesystem::path& recorded,
                 bool skip_silence);

}  // namespace kvox::sim
