// The list of a recording's gaps: as marks in the file, and as JSON beside it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "client/audio/track.h"
#include "client/output/printer.h"
#include "kvox/sound/cue_chunk.h"

namespace kvox::client {

/// A gap in a file: silence in some of its channels.
struct ListedGap {
  Gap gap = {};
  uint32_t first_channel = 0;  // from 0
  uint32_t channels = 0;
};

/// "0:12.340  20 ms of imic.0 missing: the co-processor skipped packets"
std::string TextOf(const ListedGap& gap, uint32_t sample_rate);

/// For a WAV file; those beyond what its 32 bits can tell are left out.
std::vector<CueMark> MarksOf(const std::vector<ListedGap>& gaps);
std::vector<ListedGap> GapsOf(const std::vector<CueMark>& marks);

/// As records of JSON; docs/json.md lists the keys.
Json RecordsOf(const std::vector<ListedGap>& gaps);
/// Of the file at `path`, in a list that --gaps has written. Throws UsageError for another text,
/// and when several files are listed, and not this one.
std::vector<ListedGap> ParseGaps(const std::string& text, const std::string& path);

}  // namespace kvox::client
