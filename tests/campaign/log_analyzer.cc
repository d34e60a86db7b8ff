#include "tests/campaign/log_analyzer.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <optional>

namespace kvox::campaign {
namespace {

constexpr int64_t kKept = 64 << 20;      // bytes at the end that stay
constexpr int64_t kFreeStep = 16 << 20;  // freed at a time

uint64_t NumberAt(std::string_view text) {
  uint64_t number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

/// What follows `part`; none when it is not there.
std::optional<std::string_view> After(std::string_view line, std::string_view part) {
  const size_t at = line.find(part);
  if (at == line.npos) return std::nullopt;
  return line.substr(at + part.size());
}

/// The word that ends where `part` begins.
std::string WordBefore(std::string_view line, std::string_view part) {
  line = line.substr(0, line.find(part));
  return std::string(line.substr(line.rfind(' ') + 1));
}

}  // namespace

void LogAnalyzer::Read(std::string_view line) {
  const auto has = [&](std::string_view part) { return line.find(part) != line.npos; };
  if (report_.empty() && (has("Sanitizer") || has("runtime error:"))) report_ = line;
  constexpr std::string_view kSlow = ": the client was too slow for ";
  constexpr std::string_view kLostLines = " log lines of I/O threads lost";
  constexpr std::string_view kResync = " RX resync";
  constexpr std::string_view kFirstPacket = ": RX packet_num:";
  if (const auto blocks = After(line, kSlow)) {
    slow_blocks_[WordBefore(line, kSlow)] += NumberAt(*blocks);
  } else if (has(" Restore ")) {
    ++restored_;
  } else if (has(kLostLines)) {
    lost_lines_ += NumberAt(WordBefore(line, kLostLines));
  } else if (const auto enabled = After(line, "Enable buffer ");
             enabled && has("I/O thread start")) {
    buffers_[std::string(enabled->substr(0, enabled->find(' ')))].cause = Cause::kStart;
  } else if (const auto numbers = After(line, " RX packet_num jump ")) {
    CountGap(buffers_[WordBefore(line, " ioProcess")], *numbers);
  } else if (has(kResync)) {
    // The first one of a thread belongs to its start.
    BufferState& buffer = buffers_[WordBefore(line, kResync)];
    if (buffer.cause != Cause::kStart) buffer.cause = Cause::kTiming;
  } else if (has(kFirstPacket)) {
    buffers_[WordBefore(line, kFirstPacket)].cause = Cause::kUnknown;
  }
}

/// "3 -> 7": 4 to 6 are lost. Smaller numbers are those of a stream that has restarted; what it
/// lost is not known.
void LogAnalyzer::CountGap(BufferState& buffer, std::string_view numbers) {
  const auto next = After(numbers, " -> ");
  if (!next) return;
  const uint64_t from = NumberAt(numbers);
  const uint64_t to = NumberAt(*next);
  Losses& losses = buffer.losses;
  (buffer.cause == Cause::kTiming  ? losses.timing
   : buffer.cause == Cause::kStart ? losses.start
                                   : losses.unknown) += to > from ? to - from - 1 : 0;
  buffer.cause = Cause::kUnknown;
}

Losses LogAnalyzer::LossesOf(const std::string& buffer) const {
  const auto found = buffers_.find(buffer);
  return found == buffers_.end() ? Losses() : found->second.losses;
}

uint64_t LogAnalyzer::SlowBlocks(const std::string& relay) const {
  const auto found = slow_blocks_.find(relay);
  return found == slow_blocks_.end() ? 0 : found->second;
}

void LogFollower::Follow() {
  if (fd_.get() < 0) fd_ = UniqueFd(open(file_.c_str(), O_RDWR | O_CLOEXEC));
  std::array<char, 65536> bytes{};
  for (ssize_t size; (size = pread(fd_.get(), bytes.data(), bytes.size(), offset_)) > 0;) {
    offset_ += size;
    incomplete_.append(bytes.data(), static_cast<size_t>(size));
    size_t begin = 0;
    for (size_t end; (end = incomplete_.find('\n', begin)) != incomplete_.npos; begin = end + 1) {
      log_.Read(std::string_view(incomplete_).substr(begin, end - begin));
    }
    incomplete_.erase(0, begin);
  }
  FreeOldPart();
}

/// Punches a hole at the beginning: the file keeps its length, so the daemon keeps writing as
/// before. A file system that does not support that keeps the whole log.
void LogFollower::FreeOldPart() {
  const int64_t until = (offset_ - kKept) / kFreeStep * kFreeStep;
  if (until <= freed_) return;
  fallocate(fd_.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, freed_, until - freed_);
  freed_ = until;
}

}  // namespace kvox::campaign
