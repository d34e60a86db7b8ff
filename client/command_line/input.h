// The words given for a verb's arguments and options, and their values as numbers.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace kvox::client {

/// The word as a number in the range. Throws UsageError, which names argument and range.
int32_t ParseNumber(std::string_view argument, const std::string& word, int32_t least,
                    int32_t most);

class Input {
 public:
  std::map<std::string, std::vector<std::string>, std::less<>> words;

  bool Has(std::string_view name) const { return !All(name).empty(); }

  /// The first word; "" when none was given.
  const std::string& Get(std::string_view name) const;
  const std::vector<std::string>& All(std::string_view name) const;

  // The first word as a value. All throw UsageError, which names argument and range.

  int32_t Number(std::string_view name, int32_t least, int32_t most) const {
    return ParseNumber(name, Get(name), least, most);
  }
  /// `absent` where no word was given.
  int32_t Number(std::string_view name, int32_t least, int32_t most, int32_t absent) const {
    return Has(name) ? Number(name, least, most) : absent;
  }

  /// A time in seconds; `absent` where none was given.
  std::chrono::milliseconds Seconds(std::string_view name, float least, float most,
                                    std::chrono::milliseconds absent) const;

  /// Any finite number.
  float Decimal(std::string_view name) const;
};

}  // namespace kvox::client
