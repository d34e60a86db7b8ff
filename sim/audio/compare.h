// Whether a recording holds what was played, sample for sample.
#pragma once

#include <filesystem>

namespace kvox::sim {

/// Compares `source` with the start of `recorded`; with `skip_silence` the first sound of both is
/// aligned. The shorter file ends the comparison. A source with one channel is compared with every
/// channel. Prints the result on standard output. Returns 0 when every sample is the same and there
/// was at least one, 1 when not, 2 when a file cannot be read (the reason is on standard error).
int CompareFiles(const std::filesystem::path& source, const std::filesystem::path& recorded,
                 bool skip_silence);

}  // namespace kvox::sim
