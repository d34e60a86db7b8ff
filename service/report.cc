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

}  // namespace kvox
