#include "libkvox/calls/arguments.h"

#include <ctype.h>
#include <locale.h>
#include <stdlib.h>

#include <algorithm>
#include <cerrno>
#include <charconv>

#include "kvox/common/fixed_text.h"
#include "kvox/common/four_cc.h"

namespace kvox::client {
namespace {

using Value = IKvox::ParamValue;

/// The whole word as a number of this type.
template <typename Number>
std::optional<Number> ParseWhole(std::string_view word, int base = 10) {
  Number number{};
  const char* const end = word.data() + word.size();
  const auto [at, error] = std::from_chars(word.data(), end, number, base);
  if (error != std::errc() || at != end) return std::nullopt;
  return number;
}

/// Numbers of up to 32 bits: negative, unsigned, hexadecimal.
std::optional<int64_t> ParseNumber(std::string_view word) {
  if (word.starts_with("0x") || word.starts_with("0X")) {
    return ParseWhole<uint32_t>(word.substr(2), 16);
  }
  const auto number = ParseWhole<int64_t>(word);
  return number && *number >= INT32_MIN && *number <= UINT32_MAX ? number : std::nullopt;
}

/// By name; else by `number`, the word's value, where it has one.
template <typename Enum, typename Number>
std::optional<Enum> ParseEnumerator(std::string_view word, std::optional<Number> number) {
  for (const Enum value : ndk::enum_range<Enum>()) {
    if (word == toString(value)) return value;
  }
  return number ? std::optional(static_cast<Enum>(*number)) : std::nullopt;
}

std::vector<std::string_view> SplitAtCommas(std::string_view text) {
  std::vector<std::string_view> parts;
  while (!text.empty()) {
    const size_t end = std::min(text.find(','), text.size());
    parts.push_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return parts;
}

}  // namespace

std::optional<int32_t> ParseInt(std::string_view word) {
  const auto number = ParseNumber(word);
  const bool hexadecimal = word.size() > 1 && (word[1] == 'x' || word[1] == 'X');
  if (!number || (!hexadecimal && *number > INT32_MAX)) return std::nullopt;
  return static_cast<int32_t>(*number);
}

std::optional<int32_t> ParseCode(std::string_view word) {
  const bool all_digits =
      std::all_of(word.begin(), word.end(), [](char c) { return c >= '0' && c <= '9'; });
  if (word.size() == 4 && !all_digits) {
    FourCc code = 0;
    for (const char c : word) code = code << 8 | static_cast<uint8_t>(c);
    return static_cast<int32_t>(code);
  }
  const auto number = ParseNumber(word);
  if (!number) return std::nullopt;
  return static_cast<int32_t>(*number);
}

std::optional<bool> ParseBool(std::string_view word) {
  if (word == "true" || word == "1") return true;
  if (word == "false" || word == "0") return false;
  return std::nullopt;
}

std::optional<float> ParseFloat(std::string_view word) {
  static const locale_t kPoint = newlocale(LC_ALL_MASK, "C", nullptr);
  if (word.starts_with('+')) word.remove_prefix(1);
  // The library would skip blanks and a plus sign, and take hexadecimal digits.
  const bool begins = !word.empty() && (word[0] == '-' || word[0] == '.' ||
                                        isalnum(static_cast<unsigned char>(word[0])) != 0);
  if (!begins || word.find_first_of("xX") != word.npos) return std::nullopt;
  const std::string text(word);
  char* end = nullptr;
  errno = 0;
  const float number = strtof_l(text.c_str(), &end, kPoint);
  if (errno == ERANGE || end != text.c_str() + text.size()) return std::nullopt;
  return number;
}

std::optional<int8_t> ParseByte(std::string_view word) {
  const auto number = ParseNumber(word);
  if (!number || *number < -128 || *number > 255) return std::nullopt;
  return static_cast<int8_t>(*number);
}

std::string Uppercase(std::string word) {
  for (char& c : word) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return word;
}

std::optional<std::string> ParseText(std::string_view word) {
  std::string text(word);
  if (ValidUtf8(text) != text) return std::nullopt;
  return text;
}

std::optional<IKvox::UseCase> ParseUseCase(std::string_view word) {
  return ParseEnumerator<IKvox::UseCase>(word, ParseByte(word));
}

std::optional<IKvox::ParameterId> ParseParameterId(std::string_view word) {
  return ParseEnumerator<IKvox::ParameterId>(word, ParseInt(word));
}

std::optional<Value> ParseParamValue(std::string_view word) {
  const auto values = ParseValues(word);
  if (!values || values->size() != 1) return std::nullopt;
  return values->front();
}

std::optional<std::vector<IKvox::ParamIdElementPair>> ParsePairs(std::string_view word) {
  std::vector<IKvox::ParamIdElementPair> pairs;
  for (const std::string_view part : SplitAtCommas(word)) {
    const size_t colon = part.rfind(':');
    if (colon == std::string_view::npos) return std::nullopt;
    const auto id = ParseParameterId(part.substr(0, colon));
    const auto element = ParseInt(part.substr(colon + 1));
    if (!id || !element) return std::nullopt;
    IKvox::ParamIdElementPair pair;
    pair.id = *id;
    pair.element = *element;
    pairs.push_back(pair);
  }
  return pairs;
}

std::optional<std::vector<Value>> ParseValues(std::string_view word) {
  std::vector<Value> values;
  for (std::string_view part : SplitAtCommas(word)) {
    const char tag = part.size() > 1 && part[1] == ':' ? part[0] : '\0';
    if (tag != '\0') part.remove_prefix(2);
    const bool continues_list =
        tag == '\0' && !values.empty() && values.back().getTag() == Value::v;
    if (tag == 'i') {
      const auto number = ParseInt(part);
      if (!number) return std::nullopt;
      values.push_back(Value::make<Value::i>(*number));
      continue;
    }
    if (tag == 'v') values.push_back(Value::make<Value::v>(std::vector<float>()));
    if (tag == 'v' && part.empty()) continue;
    const auto number = ParseFloat(part);
    if (!number) return std::nullopt;
    if (tag == 'f') {
      values.push_back(Value::make<Value::f>(*number));
    } else if (tag == 'v' || continues_list) {
      values.back().get<Value::v>().push_back(*number);
    } else {
      return std::nullopt;
    }
  }
  return values;
}

}  // namespace kvox::client
