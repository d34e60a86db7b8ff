#include "tests/campaign/log_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>

namespace kvox::campaign {
namespace {

constexpr int64_t kKept = 64 << 20;      // bytes at the log's end that stay
constexpr int64_t kFreeStep = 16 << 20;  // given back at a time

constexpr std::string_view kReports[] = {"Sanitizer", "runtime error:"};

uint64_t NumberAt(std::string_view text) {
  uint64_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

/// What follows `part`; false when it is not there.
bool After(std::string_view line, std::string_view part, std::string_view& rest) {
  const size_t at = line.find(part);
  if (at == line.npos) return false;
  rest = line.substr(at + part.size());
  return true;
}

/// The word that ends where `part` begins.
std::string WordBefore(std::string_view line, std::string_view part) {
  const size_t end = std::min(line.find(part), line.size());
  const size_t blank = line.substr(0, end).rfind(' ');
  const size_t begin = blank == line.npos ? 0 : blank + 1;
  return std::string(line.substr(begin, end - begin));
}

}  // namespace

void LogLedger::Read(std::string_view line) {
  std::string_view rest;
  if (report_.empty() && std::any_of(std::begin(kReports), std::end(kReports),
                                     [&](auto part) { return line.find(part) != line.npos; })) {
    report_ = line;
  }
  if (After(line, ": the client was too slow for ", rest)) {
    slow_[WordBefore(line, ": the client")] += NumberAt(rest);
  } else if (After(line, " Restore ", rest)) {
    ++restored_;
  } else if (After(line, " log lines of I/O threads lost", rest)) {
    lost_lines_ += NumberAt(WordBefore(line, " log lines of"));
  } else if (After(line, "I/O thread start", rest) && After(line, "Enable buffer ", rest)) {
    readers_[std::string(rest.substr(0, rest.find(' ')))].why = Why::kStart;
  } else if (After(line, " RX packet_num jump ", rest)) {
    const std::string_view head = line.substr(0, line.find(" ioProcess"));
    ReadPacketLine(readers_[std::string(head.substr(head.rfind(' ') + 1))], rest);
  } else if (After(line, " RX resync", rest)) {
    // The first one of a thread is no more than its start.
    Reader& reader = readers_[WordBefore(line, " RX resync")];
    if (reader.why != Why::kStart) reader.why = Why::kTiming;
  } else if (After(line, ": RX packet_num:", rest)) {
    readers_[WordBefore(line, ": RX packet_num:")].why = Why::kNothing;
  }
}

/// "3 -> 7": 4 to 6 are lost. A stream that begins anew has smaller numbers; nobody knows then.
void LogLedger::ReadPacketLine(Reader& reader, std::string_view rest) {
  std::string_view next;
  if (!After(rest, " -> ", next)) return;
  const uint64_t from = NumberAt(rest);
  const uint64_t to = NumberAt(next);
  const uint64_t lost = to > from ? to - from - 1 : 0;
  Losses& losses = reader.losses;
  (reader.why == Why::kTiming  ? losses.timing
   : reader.why == Why::kStart ? losses.start
                               : losses.unreasoned) += lost;
  reader.why = Why::kNothing;
}

Losses LogLedger::LossesOf(const std::string& buffer) const {
  const auto found = readers_.find(buffer);
  return found == readers_.end() ? Losses() : found->second.losses;
}

Losses LogLedger::Total() const {
  Losses total;
  for (const auto& [name, reader] : readers_) {
    total.timing += reader.losses.timing;
    total.start += reader.losses.start;
    total.unreasoned += reader.losses.unreasoned;
  }
  return total;
}

uint64_t LogLedger::SlowBlocks(const std::string& relay) const {
  const auto found = slow_.find(relay);
  return found == slow_.end() ? 0 : found->second;
}

LogReader::~LogReader() {
  if (fd_ >= 0) close(fd_);
}

void LogReader::Follow() {
  if (fd_ < 0) fd_ = open(file_.c_str(), O_RDWR | O_CLOEXEC);
  if (fd_ < 0) return;
  std::array<char, 65536> bytes{};
  for (;;) {
    const ssize_t size = pread(fd_, bytes.data(), bytes.size(), offset_);
    if (size <= 0) break;
    offset_ += size;
    rest_.append(bytes.data(), static_cast<size_t>(size));
    size_t begin = 0;
    for (size_t end; (end = rest_.find('\n', begin)) != rest_.npos; begin = end + 1) {
      ledger_.Read(std::string_view(rest_).substr(begin, end - begin));
    }
    rest_.erase(0, begin);
  }
  FreeOldPart();
}

/// A hole at its beginning: the file keeps its length, so the daemon writes on as before. A file
/// system that cannot do that keeps the whole log.
void LogReader::FreeOldPart() {
  const int64_t until = (offset_ - kKept) / kFreeStep * kFreeStep;
  if (until <= freed_) return;
  fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, freed_, until - freed_);
  freed_ = until;
}

}  // namespace kvox::campaign
