#include "service/report.h"

#include <array>

#include "kvox/common/fixed_text.h"
#include "kvox/common/log.h"

namespace kvox {
namespace {

// Clients see these words; the underscore of the last one is part of them.
constexpr std::array<const char*, 5> kStatusWords = {"", ": ERROR", ": INVALID PROCESSOR",
                                                     ": INVALID PARAMETER", ": INVALID_VALUE"};

const char* StatusWord(StatusCode status) {
  const auto index = static_cast<uint8_t>(status);
  return index < kStatusWords.size() ? kStatusWords[index] : ": Unknown error";
}

}  // namespace

void Report::Push(const std::string& line) {
  lines.push_back(ValidUtf8(line));
}

void Report::Begin(const std::string& request) {
  LogInfo("%s", request.c_str());
  Push(request);
}

void Report::End(const char* command, const std::string& text) {
  if (!text.empty()) {
    LogTagged(ok() ? LogPriority::kInfo : LogPriority::kError, "kvox", "%s", text.c_str());
    Push(text);
  }
  if (ok()) return;
  const std::string outcome = std::string(command) + StatusWord(status);
  LogError("%s", outcome.c_str());
  Push(outcome);
}

void Report::End(const char* command, const Outcome& outcome) {
  if (outcome.status != StatusCode::kOk) status = outcome.status;
  End(command, outcome.text);
}

namespace {

constexpr size_t kRoomForLastLine = 128;

/// Of valid UTF-8.
size_t Utf16Units(std::string_view text) {
  size_t units = 0;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte & 0xC0) != 0x80) units += byte >= 0xF0 ? 2 : 1;
  }
  return units;
}

/// Its length, its units and a terminator, in steps of four bytes.
size_t BytesOf(size_t units) {
  return 4 + ((units + 1) * 2 + 3) / 4 * 4;
}

/// Appends the lines of `entry`, which may be several, for as long as they fit. Returns how many
/// did not.
size_t AppendWhatFits(std::string_view entry, size_t limit, size_t& used,
                      std::vector<std::string>& kept) {
  std::string text;
  size_t units = 0;
  size_t missing = 0;
  bool any = false;
  while (true) {
    const size_t end = entry.find('\n');
    const std::string_view line = entry.substr(0, end);
    const size_t with_line = units + (any ? 1 : 0) + Utf16Units(line);
    if (used + BytesOf(with_line) <= limit) {
      text.append(any ? "\n" : "").append(line);
      units = with_line;
      any = true;
    } else {
      ++missing;
    }
    if (end == entry.npos) break;
    entry.remove_prefix(end + 1);
  }
  if (any) {
    used += BytesOf(units);
    kept.push_back(std::move(text));
  }
  return missing;
}

}  // namespace

void CutToReply(std::vector<std::string>& lines) {
  size_t bytes = 0;
  for (const std::string& line : lines) bytes += BytesOf(Utf16Units(line));
  if (bytes <= kMaxReplyLineBytes) return;
  std::vector<std::string> kept;
  size_t used = 0;
  size_t missing = 0;
  for (const std::string& line : lines) {
    missing += AppendWhatFits(line, kMaxReplyLineBytes - kRoomForLastLine, used, kept);
  }
  kept.push_back(FormatText<128>("%zu line%s missing: one reply cannot carry more", missing,
                                 missing == 1 ? " is" : "s are"));
  lines = std::move(kept);
}

}  // namespace kvox
