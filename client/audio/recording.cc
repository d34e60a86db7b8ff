#include "client/audio/recording.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "client/output/json.h"

namespace kvox::client {

Recording::Recording(const RecordingPlan& plan, double seconds, std::function<bool()> interrupted)
    : points_(plan.points),
      seconds_(seconds),
      file_(plan.path, plan.kind, std::move(interrupted)),
      track_(plan.points) {}

bool Recording::Write() {
  while (!full()) {
    const auto data = track_.TakeFrames(std::min(kFramesAtOnce, limit() - frames_));
    if (data.empty()) return false;
    format_ = track_.format();
    frames_ += data.size() / format_->FrameSize();
    if (!file_.Write(*format_, data)) return true;
  }
  return true;
}

void Recording::Close() {
  file_.Close();
  if (format_ && file_.can_hold_marks()) AppendCues(file_.path(), MarksOf(gaps()));
}

void Recording::CheckRoom() const {
  if (!format_ || frames_ < file_.longest() / format_->FrameSize()) return;
  throw SoundFileError("'" + path() +
                       "' is full: a WAV file holds 4 GiB; record to a .flac or .raw file");
}

std::vector<ListedGap> Recording::gaps() const {
  std::vector<ListedGap> listed;
  for (Gap& gap : track_.GapsUntil(frames_)) {
    const uint32_t first = track_.ChannelOf(gap.point);
    const uint32_t channels = track_.ChannelsOf(gap.point);
    listed.push_back({std::move(gap), first, channels});
  }
  return listed;
}

double Recording::seconds() const {
  return format_ ? static_cast<double>(frames_) / format_->sample_rate : 0;
}

Json Recording::ToJson() const {
  return {{"file", path()},
          {"points", points_},
          {"sample_rate_hz", sample_rate()},
          {"channels", format_ ? format_->channels : 0},
          {"frames", frames_},
          {"gaps", RecordsOf(gaps())}};
}

uint64_t Recording::limit() const {
  const auto format = track_.format();
  if (!format) return UINT64_MAX;
  const uint64_t most = file_.longest() / format->FrameSize();
  if (seconds_ == 0) return most;
  return std::min(most, static_cast<uint64_t>(std::ceil(seconds_ * format->sample_rate)));
}

}  // namespace kvox::client
