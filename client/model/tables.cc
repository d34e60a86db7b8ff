#include "client/model/tables.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <string_view>

#include "client/calls/arguments.h"
#include "kvox/common/command_tables.h"

namespace kvox::client {
namespace {

using aidl::kvox::IKvox;
using ParameterId = IKvox::ParameterId;

std::string Trim(std::string_view text) {
  const size_t begin = std::min(text.find_first_not_of(' '), text.size());
  const size_t end = text.find_last_not_of(' ') + 1;
  return std::string(text.substr(begin, end > begin ? end - begin : 0));
}

/// "-" and "NC" stand for nothing.
std::string NameOrNone(const std::string& name) {
  return name == kNoneInTable || name == kNotConnected ? "" : name;
}

/// A row's text from left to right. What is not there reads as empty, and makes the row bad.
class Row {
 public:
  explicit Row(std::string_view text) : text_(text) {}

  void Skip(size_t count) { text_.remove_prefix(std::min(count, text_.size())); }

  /// A column of fixed width, which may hold blanks, and the blank behind it.
  std::string Column(size_t width) {
    std::string column = Trim(text_.substr(0, width));
    good_ = good_ && !column.empty();
    Skip(width + 1);
    return column;
  }

  /// Up to the next blank.
  std::string Word() {
    text_.remove_prefix(std::min(text_.find_first_not_of(' '), text_.size()));
    const size_t end = std::min(text_.find(' '), text_.size());
    std::string word(text_.substr(0, end));
    text_.remove_prefix(end);
    good_ = good_ && !word.empty();
    return word;
  }

  template <typename Number>
  Number Take() {
    return Whole<Number>(Word());
  }

  /// The last word, taken off the end.
  std::string LastWord() {
    const std::string rest = Trim(text_);
    const size_t blank = rest.rfind(' ');
    text_ = text_.substr(0, text_.find_last_not_of(' ') + 1);
    std::string word = blank == rest.npos ? rest : rest.substr(blank + 1);
    text_.remove_suffix(word.size());
    good_ = good_ && !word.empty();
    return word;
  }

  template <typename Number>
  Number Whole(const std::string& word) {
    Number number{};
    const char* const end = word.data() + word.size();
    const auto [at, error] = std::from_chars(word.data(), end, number);
    good_ = good_ && error == std::errc() && at == end;
    return number;
  }

  bool Flag(const std::string& word) { return Whole<uint32_t>(word) != 0; }
  std::string_view rest() const { return text_; }
  void Require(bool condition) { good_ = good_ && condition; }
  bool good() const { return good_; }

  /// What has been read tells which thing the row is about, even when the rest is cut.
  void EndName() { named_ = good_; }
  bool named() const { return named_; }

 private:
  std::string_view text_;
  bool good_ = true;
  bool named_ = false;
};

/// Reads each line behind the one that begins with `header`.
template <typename T, typename Read>
Rows<T> ReadTable(const Lines& lines, std::string_view header, Read read) {
  Rows<T> rows;
  bool in_table = false;
  for (const std::string& line : SplitLines(lines)) {
    if (!in_table) {
      in_table = line.starts_with(header);
      continue;
    }
    if (Trim(line).empty()) continue;
    Row row(line);
    T item = read(row);
    if (row.good()) {
      rows.items.push_back(std::move(item));
    } else {
      ++rows.unread;
      if (row.named()) rows.cut.push_back(std::move(item));
    }
  }
  return rows;
}

/// "48kHz, 2ch, i16"
void ReadFormat(const std::string& text, Row& row, TapPoint& tap) {
  const size_t rate_end = text.find("kHz, ");
  const size_t channels_end = text.find("ch, ");
  const bool complete = rate_end != text.npos && channels_end != text.npos &&
                        rate_end + 5 <= channels_end && channels_end + 5 < text.size();
  row.Require(complete);
  if (!complete) return;
  const double khz = ParseDecimal<double>(std::string_view(text).substr(0, rate_end)).value_or(-1);
  row.Require(khz >= 0 && khz <= 4'294'967);
  if (row.good()) tap.sample_rate_hz = static_cast<uint32_t>(std::lround(khz * 1000));
  tap.channels = row.Whole<uint32_t>(text.substr(rate_end + 5, channels_end - rate_end - 5));
  tap.encoding = text[channels_end + 4];
  tap.bits = row.Whole<uint32_t>(text.substr(channels_end + 5));
}

TapPoint ReadTap(int core, Row& row) {
  TapPoint tap;
  tap.core = core;
  row.Skip(2);
  tap.code = Trim(row.rest().substr(0, kTapCodeWidth));
  row.Skip(kTapCodeWidth);
  row.Require(row.rest().starts_with('.'));
  row.Skip(1);
  const size_t digits = std::min(row.rest().find(' '), row.rest().size());
  tap.index = row.Whole<int>(std::string(row.rest().substr(0, digits)));
  row.Skip(std::max(digits, kTapIndexWidth) + 3);
  ReadFormat(row.Column(kTapFormatWidth), row, tap);
  tap.block_length_frames = row.Take<uint32_t>();
  tap.noninterleaved_samples = row.Take<uint32_t>();
  tap.jitter_buffer_frames = row.Take<uint32_t>();
  tap.tapout = NameOrNone(row.Word());
  tap.inject = NameOrNone(row.Word());
  tap.enabled = row.Flag(row.Word());
  return tap;
}

Processor ReadProcessor(Row& row) {
  Processor processor;
  row.Skip(2);
  processor.id = row.Column(kColumnWidth);
  processor.type = row.Column(kColumnWidth);
  processor.input = NameOrNone(row.Word());
  processor.output = NameOrNone(row.Word());
  processor.enabled = row.Flag(row.Word());
  return processor;
}

/// Ids joined by commas, each of four bytes unless it has NUL bytes.
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

Buffer ReadBuffer(Direction direction, Row& row) {
  Buffer buffer;
  buffer.direction = direction;
  row.Skip(2);
  buffer.id = row.Whole<int>(row.Column(kColumnWidth));
  buffer.name = row.Column(kColumnWidth);
  row.EndName();
  buffer.producer = NameOrNone(row.Column(kColumnWidth));
  buffer.enabled = row.Flag(row.LastWord());
  buffer.consumers = SplitIds(NameOrNone(Trim(row.rest())));
  return buffer;
}

/// Cuts off " (disabled)"; true when it was not there.
bool TakeEnabled(std::string& name) {
  constexpr std::string_view kDisabled = kGraphDisabled;
  if (!name.ends_with(kDisabled)) return !name.empty();
  name.resize(name.size() - kDisabled.size());
  return false;
}

Path ReadPath(Row& row) {
  constexpr std::string_view kArrow = kGraphArrow;
  std::vector<std::string> stations;
  row.Skip(2);
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

Rows<Processor> ReadProcessors(const Lines& lines) {
  return ReadTable<Processor>(lines, kTableHeaderStart, ReadProcessor);
}

Rows<TapPoint> ReadTaps(int core, const Lines& lines) {
  return ReadTable<TapPoint>(lines, kTableHeaderStart,
                             [core](Row& row) { return ReadTap(core, row); });
}

bool CoreAnswered(const Lines& lines) {
  return std::find(lines.begin(), lines.end(), kTapListFailed) == lines.end();
}

Rows<Buffer> ReadBuffers(Direction direction, const Lines& lines) {
  return ReadTable<Buffer>(lines, kTableHeaderStart,
                           [direction](Row& row) { return ReadBuffer(direction, row); });
}

Rows<Path> ReadGraph(const Lines& lines) {
  Rows<Path> rows = ReadTable<Path>(lines, kGraphTitle, ReadPath);
  if (std::find(lines.begin(), lines.end(), kGraphEmpty) != lines.end()) return {};
  return rows;
}

std::vector<std::string> ReadNames(const Lines& lines) {
  std::vector<std::string> names;
  for (const std::string& line : lines) {
    std::string_view rest = line;
    rest.remove_prefix(rest.find(':') + 1);  // nothing where there is none: npos + 1 is 0
    for (Row row(rest); !Trim(row.rest()).empty();) names.push_back(row.Word());
  }
  return names;
}

std::vector<IKvox::ParamIdElementPair> SettingsPairs() {
  constexpr struct {
    ParameterId id;
    int32_t element;
  } kPairs[] = {{ParameterId::PASSTHROUGH_MODE, 0}, {ParameterId::TEST_MODE, 0},
                {ParameterId::BLOCK_LENGTH, 0},     {ParameterId::JITTER_BUFFER, 0},
                {ParameterId::AUDIO_FORMAT, 0},     {ParameterId::AUDIO_FORMAT, 1},
                {ParameterId::AUDIO_FORMAT, 2},     {ParameterId::AUDIO_FORMAT, 3},
                {ParameterId::AUDIO_FORMAT, 6}};
  std::vector<IKvox::ParamIdElementPair> pairs(std::size(kPairs));
  for (size_t i = 0; i < pairs.size(); ++i) {
    pairs[i].id = kPairs[i].id;
    pairs[i].element = kPairs[i].element;
  }
  return pairs;
}

std::optional<Settings> ReadSettings(const std::vector<IKvox::ParamValue>& values) {
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
                  .sample_rate_code = numbers[4],
                  .sample_size_code = numbers[5],
                  .encoding_code = numbers[6],
                  .channels = numbers[7],
                  .noninterleaved_samples = numbers[8]};
}

std::string CauseOf(const aidl::kvox::IKvox::CommandResult& result) {
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
