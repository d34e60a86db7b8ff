#include "service/command_result.h"

#include <array>

#include "kvox/common/fixed_text.h"
#include "kvox/common/log.h"

namespace kvox {
namespace {

// Clients see these words; the underscore of the last one is part of them.
constexpr std::array<const char*, 5> kStatusWords = {"", ": ERROR", ": INVALID PROCESSOR",
                                                     ": INVALID PARAMETER", ": INVALID_VALUE"};

const char* StatusWord(CommandStatus status) {
  const auto index = static_cast<uint8_t>(status);
  return index < kStatusWords.size() ? kStatusWords[index] : ": Unknown error";
}

}  // namespace

void PushLine(const std::string& line, CommandResult* result) {
  result->lines.push_back(ValidUtf8(line));
}

void BeginCommand(const std::string& request, CommandResult* result) {
  LogInfo("%s", request.c_str());
  PushLine(request, result);
}

void print_command_status(const char* name, const std::string& text, CommandResult* result) {
  const bool failed = result->status != CommandStatus::OK;
  if (!text.empty()) {
    if (failed) {
      LogError("%s", text.c_str());
    } else {
      LogInfo("%s", text.c_str());
    }
    PushLine(text, result);
  }
  if (!failed) return;
  const std::string outcome = std::string(name) + StatusWord(result->status);
  LogError("%s", outcome.c_str());
  PushLine(outcome, result);
}

}  // namespace kvox
