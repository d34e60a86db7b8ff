#include "tests/campaign/restorer.h"

#include <algorithm>

namespace kvox::campaign {

void Restorer::AskAgain(const StreamList& streams) {
  const Model model = shared_.model.Copy();
  for (const Stream& stream : Streams()) {
    const bool chosen = streams.empty() || std::count(streams.begin(), streams.end(), &stream) > 0;
    const auto tap = model.taps().find({stream.core, stream.tap, stream.index});
    if (chosen && tap != model.taps().end()) AskAgain(stream, tap->second);
  }
}

void Restorer::AskAgain(const Stream& stream, const TapModel& tap) {
  asker_.ConnectTap(stream, tap.tapout, tap.inject) &&
      (!tap.block_length || asker_.TapSetBlockLength(stream, *tap.block_length)) &&
      (!tap.jitter_buffer || asker_.TapSetJitterBuffer(stream, *tap.jitter_buffer)) &&
      asker_.TapEnable(stream, tap.enabled);
}

}  // namespace kvox::campaign
