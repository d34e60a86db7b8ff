// Marked stretches of a WAV file: a cue chunk with the positions, and behind it a list chunk with
// lengths and labels, as audio editors show them. docs/protocol.md has the byte tables.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kvox {

struct CueMark {
  uint32_t position = 0;  // frames from the begin
  uint32_t frames = 0;
  std::string label = {};  // in UTF-8, without NUL
};

/// Appends the marks to a WAV file whose data chunk is its last. Throws SoundFileError; the file is
/// then as it was.
void AppendCues(const std::string& path, const std::vector<CueMark>& marks);

/// The marks of a file, in its order; none where it has no such chunks. Throws SoundFileError for a
/// file that cannot be read or is no WAV file.
std::vector<CueMark> ReadCues(const std::string& path);

}  // namespace kvox
