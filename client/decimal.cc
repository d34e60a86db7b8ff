#include "client/decimal.h"

#include <ctype.h>
#include <locale.h>
#include <stdlib.h>

#include <cerrno>
#include <string>

namespace kvox::client {
namespace {

float Convert(const char* text, char** end, locale_t locale, float) {
  return strtof_l(text, end, locale);
}
double Convert(const char* text, char** end, locale_t locale, double) {
  return strtod_l(text, end, locale);
}

}  // namespace

template <typename Number>
std::optional<Number> ParseDecimal(std::string_view word) {
  static const locale_t kPoint = newlocale(LC_ALL_MASK, "C", nullptr);
  // The library would pass over blanks and a plus sign, and take hexadecimal digits.
  const bool begins = !word.empty() && (word[0] == '-' || word[0] == '.' ||
                                        isalnum(static_cast<unsigned char>(word[0])) != 0);
  if (!begins || word.find_first_of("xX") != word.npos) return std::nullopt;
  const std::string text(word);
  char* end = nullptr;
  errno = 0;
  const Number number = Convert(text.c_str(), &end, kPoint, Number{});
  if (errno == ERANGE || end != text.c_str() + text.size()) return std::nullopt;
  return number;
}

template std::optional<float> ParseDecimal(std::string_view);
template std::optional<double> ParseDecimal(std::string_view);

}  // namespace kvox::client
