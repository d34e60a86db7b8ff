#include "libkvox/model/tables.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <string_view>
#include <utility>

#include "kvox/common/command_tables.h"

namespace kvox::client {
namespace {

using aidl::kvox::IKvox;

std::string Trim(std::string_view text) {
  const size_t begin = std::min(text.find_first_not_of(' '), text.size());
  const size_t end = text.find_last_not_of(' ') + 1;
  return std::string(text.substr(begin, end > begin ? end - begin : 0));
}

std::string NameOrNone(const std::string& name) {
  return name == kNoneInTable || name == kNotConnected ? "" : name;
}

/// A row's text from left to right. What is missing reads as empty, and makes the row invalid.
class Row {
 public:
  explicit Row(std::string_view text) : text_(text) {}

  void Skip(size_t count) { text_.remove_prefix(std::min(count, text_.size())); }

  /// A column of fixed width, which may hold blanks.
  std::string Column(size_t width = kColumnWidth) {
    std::string column = Trim(text_.substr(0, width));
    Require(!column.empty());
    Skip(width + kColumnGap);
    return column;
  }

  /// Up to the next blank.
  std::string Word() {
    Skip(text_.find_first_not_of(' '));
    std::string word(text_.substr(0, text_.find(' ')));
    Skip(word.size());
    Require(!word.empty());
    return word;
  }

  /// The last word, removed from the end.
  std::string LastWord() {
    text_ = text_.substr(0, text_.find_last_not_of(' ') + 1);
    std::string word(text_.substr(text_.rfind(' ') + 1));
    text_.remove_suffix(word.size());
    Require(!word.empty());
    return word;
  }

  /// All of `word` as a number.
  template <typename Number>
  Number Parse(const std::string& word) {
    Number number{};
    const char* const end = word.data() + word.size();
    const auto [at, error] = std::from_chars(word.data(), end, number);
    Require(error == std::errc() && at == end);
    return number;
  }
  uint32_t Number() { return Parse<uint32_t>(Word()); }

  std::string_view rest() const { return text_; }
  void Require(bool condition) { valid_ = valid_ && condition; }
  bool valid() const { return valid_; }

  /// What has been read identifies the object, even when the rest is truncated.
  void EndName() { named_ = valid_; }
  bool named() const { return named_; }

 private:
  std::string_view text_;
  bool valid_ = true;
  bool named_ = false;
};

/// Parses each line after the one that starts with `header`.
template <typename T, typename Parse>
TableReply<T> ParseTable(Lines&& lines, std::string_view header, Parse parse) {
  TableReply<T> reply;
  bool in_table = false;
  for (const std::string& line : SplitLines(lines)) {
    if (!in_table) {
      in_table = line.starts_with(header);
      continue;
    }
    if (Trim(line).empty()) continue;
    Row row(line);
    row.Skip(kRowIndent);
    T item = parse(row);
    if (row.valid()) {
      reply.rows.push_back(std::move(item));
    } else {
      ++reply.unparsed;
      if (row.named()) reply.truncated.push_back(std::move(item));
    }
  }
  reply.lines = std::move(lines);
  return reply;
}

void ParseFormat(Row& row, TapPoint& tap) {
  const std::string text = row.Column(kTapFormatWidth);
  float khz = -1;
  const int count = sscanf(text.c_str(), kTapFormat, &khz, &tap.channels, &tap.encoding, &tap.bits);
  row.Require(count == 4 && khz >= 0 && khz <= 4'294'967);
  if (row.valid()) tap.sample_rate_hz = static_cast<uint32_t>(std::lround(double{khz} * 1000));
}

TapPoint ParseTap(int core, Row& row) {
  TapPoint tap;
  tap.core = core;
  tap.code = Trim(row.rest().substr(0, kTapCodeWidth));
  row.Skip(kTapCodeWidth);
  row.Require(row.rest().starts_with('.'));
  row.Skip(1);
  const std::string index(row.rest().substr(0, row.rest().find(' ')));
  tap.index = row.Parse<int>(index);
  row.Skip(std::max(index.size(), kTapIndexWidth) + kTapNameGap);
  ParseFormat(row, tap);
  tap.block_length_frames = row.Number();
  tap.noninterleaved_samples = row.Number();
  tap.jitter_buffer_frames = row.Number();
  tap.tapout = NameOrNone(row.Word());
  tap.inject = NameOrNone(row.Word());
  tap.enabled = row.Number() != 0;
  return tap;
}

Processor ParseProcessor(Row& row) {
  Processor processor;
  processor.id = row.Column();
  processor.type = row.Column();
  processor.input = NameOrNone(row.Word());
  processor.output = NameOrNone(row.Word());
  processor.enabled = row.Number() != 0;
  return processor;
}

/// Comma-separated ids, each of four bytes unless it has NUL bytes.
std::vector<std::string> SplitIds(std::string_view text) {
  constexpr size_t kStep = 5;
  bool fixed = (text.size() + 1) % kStep == 0;
  for (size_t at = 4; fixed && at < text.size(); at += kStep) fixed = text[at] == ',';
  std::vector<std::string> ids;
  while (!text.empty()) {
    const size_t end = std::min(fixed ? 4 : text.find(','), text.size());
    ids.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return ids;
}

Buffer ParseBuffer(Direction direction, Row& row) {
  Buffer buffer;
  buffer.direction = direction;
  buffer.id = row.Parse<int>(row.Column());
  buffer.name = row.Column();
  row.EndName();
  buffer.producer = NameOrNone(row.Column());
  buffer.enabled = row.Parse<uint32_t>(row.LastWord()) != 0;
  buffer.consumers = SplitIds(NameOrNone(Trim(row.rest())));
  return buffer;
}

/// Removes " (disabled)"; true when it was not there.
bool TakeEnabled(std::string& name) {
  constexpr std::string_view kDisabled = kGraphDisabled;
  if (!name.ends_with(kDisabled)) return !name.empty();
  name.resize(name.size() - kDisabled.size());
  return false;
}

Path ParsePath(Row& row) {
  constexpr std::string_view kArrow = kGraphArrow;
  std::vector<std::string> stations;
  for (std::string_view rest = row.rest(); stations.size() <= kGraphStations;) {
    const size_t arrow = rest.find(kArrow);
    stations.push_back(NameOrNone(std::string(rest.substr(0, arrow))));
    if (arrow == rest.npos) break;
    rest.remove_prefix(arrow + kArrow.size());
  }
  row.Require(stations.size() == kGraphStations);
  stations.resize(kGraphStations);
  Path path{.source = stations[0],
            .tapout = stations[1],
            .processor = stations[2],
            .inject = stations[3],
            .sink = stations[4]};
  path.source_enabled = TakeEnabled(path.source);
  path.processor_enabled = TakeEnabled(path.processor);
  path.sink_enabled = TakeEnabled(path.sink);
  return path;
}

bool Contains(const Lines& lines, const char* line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

}  // namespace

std::vector<std::string> SplitLines(const Lines& lines) {
  std::vector<std::string> split;
  for (std::string_view text : lines) {
    for (bool more = true; more;) {
      const size_t end = text.find('\n');
      split.emplace_back(text.substr(0, end));
      more = end != text.npos;
      if (more) text.remove_prefix(end + 1);
    }
  }
  return split;
}

TableReply<Processor> ParseProcessors(Lines lines) {
  return ParseTable<Processor>(std::move(lines), kTableHeaderStart, ParseProcessor);
}

TableReply<TapPoint> ParseTaps(int core, Lines lines) {
  return ParseTable<TapPoint>(std::move(lines), kTableHeaderStart,
                              [core](Row& row) { return ParseTap(core, row); });
}

bool CoreReplied(const Lines& lines) {
  return !Contains(lines, kTapListFailed);
}

TableReply<Buffer> ParseBuffers(Direction direction, Lines lines) {
  return ParseTable<Buffer>(std::move(lines), kTableHeaderStart,
                            [direction](Row& row) { return ParseBuffer(direction, row); });
}

TableReply<Path> ParseGraph(Lines lines) {
  if (Contains(lines, kGraphEmpty)) return {.rows = {}, .lines = std::move(lines)};
  return ParseTable<Path>(std::move(lines), kGraphTitle, ParsePath);
}

TableReply<std::string> ParseNames(Lines lines) {
  TableReply<std::string> reply;
  for (const std::string_view line : lines) {
    Row row(line);
    row.Skip(line.find(':') + 1);  // nothing where there is none: npos + 1 is 0
    while (!Trim(row.rest()).empty()) reply.rows.push_back(row.Word());
  }
  reply.lines = std::move(lines);
  return reply;
}

std::vector<IKvox::ParamIdElementPair> SettingsPairs() {
  using Id = IKvox::ParameterId;
  constexpr std::pair<Id, int32_t> kPairs[] = {{Id::PASSTHROUGH_MODE, 0},
                                               {Id::TEST_MODE, 0},
                                               {Id::BLOCK_LENGTH, 0},
                                               {Id::JITTER_BUFFER, 0},
                                               {Id::AUDIO_FORMAT, 3}};
  std::vector<IKvox::ParamIdElementPair> pairs;
  for (const auto& [id, element] : kPairs) {
    IKvox::ParamIdElementPair& pair = pairs.emplace_back();
    pair.id = id;
    pair.element = element;
  }
  return pairs;
}

std::optional<Settings> ParseSettings(const std::vector<IKvox::ParamValue>& values) {
  std::vector<int32_t> numbers;
  for (const auto& value : values) {
    if (value.getTag() == IKvox::ParamValue::i) {
      numbers.push_back(value.get<IKvox::ParamValue::i>());
    }
  }
  if (numbers.size() != SettingsPairs().size()) return std::nullopt;
  return Settings{.passthrough_mode = numbers[0] != 0,
                  .test_mode = numbers[1] != 0,
                  .block_length_frames = numbers[2],
                  .jitter_buffer_frames = numbers[3],
                  .channels = numbers[4]};
}

std::string CauseOf(const IKvox::CommandResult& result) {
  const Lines lines = SplitLines(result.lines);
  std::string text;
  for (size_t i = 1; i < lines.size(); ++i) {
    const size_t begin = lines[i].find_first_not_of(' ');
    if (begin == std::string::npos) continue;
    text += (text.empty() ? "" : "; ") + lines[i].substr(begin);
  }
  return text.empty() ? "the daemon answers " + toString(result.status) : text;
}

}  // namespace kvox::client
