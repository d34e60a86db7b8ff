#include "client/audio/gap_list.h"

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <limits>

#include "client/output/json.h"
#include "kvox/common/fixed_text.h"
#include "libkvox/units.h"

namespace kvox::client {
namespace {

/// How a mark's label begins.
constexpr char kLabelStart[] = "channels %u-%u of ";

std::string CauseTextOf(const GapCause& cause) {
  return cause.text.empty() ? "the cause is not known" : cause.text;
}

[[noreturn]] void RefuseList(const std::string& cause) {
  throw UsageError("--gaps: this is no list of gaps: " + cause);
}

const Json& ArrayIn(const Json& object, const char* key) {
  const Json& value = object.at(key);
  if (!value.is_array()) RefuseList(std::string(key) + " is no array");
  return value;
}

template <typename Number>
Number NumberIn(const Json& record, const char* key, Number least = 0) {
  constexpr Number kMost = std::numeric_limits<Number>::max();
  const Json& value = record.at(key);
  if (value.is_number_unsigned()) {
    const auto number = value.get<uint64_t>();
    if (number >= least && number <= kMost) return static_cast<Number>(number);
  }
  RefuseList(std::string(key) + " is no whole number from " + std::to_string(least) + " to " +
             std::to_string(kMost));
}

ListedGap GapIn(const Json& record) {
  return {.gap = {.point = record.at("point").get<std::string>(),
                  .position = NumberIn<uint64_t>(record, "position_frames"),
                  .frames = NumberIn<uint64_t>(record, "frames"),
                  .cause = {.text = record.at("text").get<std::string>()}},
          .first_channel = NumberIn<uint32_t>(record, "first_channel"),
          .channels = NumberIn<uint32_t>(record, "channels", 1)};
}

std::string NameOf(const std::string& path) {
  return std::filesystem::path(path).filename().string();
}

/// The file of the list that is at `path`. A list of one file is of that one: it may have another
/// name now. Throws UsageError.
const Json& Choose(const Json& files, const std::string& path) {
  if (files.empty()) RefuseList("it has no file");
  if (files.size() == 1) return files.front();
  std::string names;
  std::vector<const Json*> namesakes;
  for (const Json& file : files) {
    const auto name = file.at("file").get<std::string>();
    if (name == path) return file;
    if (NameOf(name) == NameOf(path)) namesakes.push_back(&file);
    names += (names.empty() ? "" : ", ") + name;
  }
  if (namesakes.size() == 1) return *namesakes.front();
  throw UsageError("--gaps: the list has " + names + ", " +
                   (namesakes.empty() ? "but not '" : "and does not tell which is '") +
                   ValidUtf8(path) + "'; name one of these files, or another list");
}

}  // namespace

std::string TextOf(const ListedGap& listed, uint32_t sample_rate) {
  const Gap& gap = listed.gap;
  const auto seconds = [&](uint64_t frames) {
    return sample_rate == 0 ? 0 : static_cast<double>(frames) / sample_rate;
  };
  const double at_s = seconds(gap.position);
  return FormatText<32>("%.0f:%06.3f  ", std::floor(at_s / 60), std::fmod(at_s, 60)) +
         (gap.estimated ? "about " : "") + TimeText(seconds(gap.frames) * 1e9) + " of " +
         gap.point + " missing: " + CauseTextOf(gap.cause);
}

std::vector<CueMark> MarksOf(const std::vector<ListedGap>& gaps) {
  std::vector<CueMark> marks;
  for (const auto& [gap, first, channels] : gaps) {
    if (gap.position + gap.frames > UINT32_MAX) break;
    marks.push_back({static_cast<uint32_t>(gap.position), static_cast<uint32_t>(gap.frames),
                     FormatText<64>(kLabelStart, first + 1, first + channels) + gap.point + ": " +
                         CauseTextOf(gap.cause)});
  }
  return marks;
}

std::vector<ListedGap> GapsOf(const std::vector<CueMark>& marks) {
  std::vector<ListedGap> gaps;
  for (const CueMark& mark : marks) {
    unsigned first = 0;
    unsigned last = 0;
    int length = 0;
    const int count = sscanf(mark.label.c_str(), "channels %u-%u of %n", &first, &last, &length);
    if (count != 2 || length == 0 || first == 0 || last < first) continue;  // somebody else's
    const std::string text = mark.label.substr(static_cast<size_t>(length));
    const size_t colon = text.find(": ");
    if (colon == text.npos) continue;
    gaps.push_back({.gap = {.point = text.substr(0, colon),
                            .position = mark.position,
                            .frames = mark.frames,
                            .cause = {.text = text.substr(colon + 2)}},
                    .first_channel = first - 1,
                    .channels = last - first + 1});
  }
  return gaps;
}

Json RecordsOf(const std::vector<ListedGap>& gaps) {
  Json records = Json::array();
  for (const auto& [gap, first, channels] : gaps) {
    records.push_back({{"point", gap.point},
                       {"first_channel", first},
                       {"channels", channels},
                       {"position_frames", gap.position},
                       {"frames", gap.frames},
                       {"estimated", gap.estimated},
                       {"cause", OrNull(gap.cause.word)},
                       {"text", gap.cause.text},
                       {"evidence", gap.cause.evidence}});
  }
  return records;
}

std::vector<ListedGap> ParseGaps(const std::string& text, const std::string& path) {
  try {
    const Json document = Json::parse(text);
    const Json& file = Choose(ArrayIn(document, "files"), path);
    std::vector<ListedGap> gaps;
    for (const Json& record : ArrayIn(file, "gaps")) gaps.push_back(GapIn(record));
    return gaps;
  } catch (const Json::exception& error) {
    RefuseList(error.what());
  }
}

}  // namespace kvox::client
