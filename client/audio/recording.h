// One file of a recording, and what goes into it.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "client/audio/gap_list.h"
#include "client/audio/recording_file.h"
#include "client/audio/track.h"

namespace kvox::client {

/// A file to write, and the points whose audio it holds, side by side.
struct RecordingPlan {
  std::string path;
  FileKind kind = FileKind::kWav;
  std::vector<std::string> points;
};

/// Missing blocks become silence, and are listed. One thread.
class Recording {
 public:
  static constexpr uint64_t kFramesAtOnce = 48'000;

  /// `seconds` is how much there is to be, 0 for all; `interrupted` ends the wait for a pipe's
  /// reader. Throws UsageError, see RecordingFile.
  Recording(
      const RecordingPlan& plan, double seconds,
      std::function<bool()> interrupted = [] { return false; });

  /// Where blocks are added.
  Track& track() { return track_; }
  const Track& track() const { return track_; }
  const std::string& path() const { return file_.path(); }

  /// Writes what is complete. True when there is enough, or nobody reads it any more. Throws
  /// SoundFileError.
  bool Write();

  /// Completes the file, with the gaps as marks. Throws SoundFileError.
  void Close();

  /// Whether it has as many frames as it should have, or can hold.
  bool full() const { return frames_ >= limit(); }

  /// Throws SoundFileError when it ends because it can hold no more.
  void CheckRoom() const;

  std::vector<ListedGap> gaps() const;
  double seconds() const;
  uint32_t sample_rate() const { return format_ ? format_->sample_rate : 0; }

  /// As docs/json.md lists it.
  Json ToJson() const;

 private:
  uint64_t limit() const;

  const std::vector<std::string> points_;
  const double seconds_;
  RecordingFile file_;
  Track track_;
  std::optional<SoundFormat> format_;
  uint64_t frames_ = 0;
};

}  // namespace kvox::client
