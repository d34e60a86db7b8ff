#include "client/command_line/input.h"

#include <fmt/format.h>

#include <cmath>

#include "kvox/common/fixed_text.h"
#include "libkvox/calls/arguments.h"
#include "libkvox/errors.h"

namespace kvox::client {

int32_t ParseNumber(std::string_view argument, const std::string& word, int32_t least,
                    int32_t most) {
  const auto number = ParseInt(word);
  if (number && *number >= least && *number <= most) return *number;
  throw UsageError(fmt::format("{}: '{}' is not a number from {} to {}", argument, ValidUtf8(word),
                               least, most));
}

const std::string& Input::Get(std::string_view name) const {
  static const std::string none;
  const std::vector<std::string>& all = All(name);
  return all.empty() ? none : all.front();
}

const std::vector<std::string>& Input::All(std::string_view name) const {
  static const std::vector<std::string> none;
  const auto found = words.find(name);
  return found == words.end() ? none : found->second;
}

std::chrono::milliseconds Input::Seconds(std::string_view name, float least, float most,
                                         std::chrono::milliseconds absent) const {
  if (!Has(name)) return absent;
  const auto seconds = ParseFloat(Get(name));
  if (seconds && *seconds >= least && *seconds <= most) {
    return std::chrono::milliseconds(std::lround(*seconds * 1000));
  }
  throw UsageError(fmt::format("{}: '{}' is not a number from {} to {}", name, ValidUtf8(Get(name)),
                               least, most));
}

float Input::Decimal(std::string_view name) const {
  const auto number = ParseFloat(Get(name));
  if (number && std::isfinite(*number)) return *number;
  throw UsageError(fmt::format("{}: '{}' is not a finite number", name, ValidUtf8(Get(name))));
}

}  // namespace kvox::client
