#include "client/command_line/script.h"

#include <cctype>

#include "libkvox/errors.h"

namespace kvox::client {

std::vector<std::string> SplitWords(const std::string& line) {
  std::vector<std::string> words;
  bool in_word = false;
  char quote = 0;
  for (size_t i = 0; i < line.size(); ++i) {
    const char letter = line[i];
    const bool blank = std::isspace(static_cast<unsigned char>(letter)) != 0;
    if (quote == 0 && (blank || (letter == '#' && !in_word))) {
      if (!blank) break;
      in_word = false;
      continue;
    }
    if (!in_word) words.emplace_back();
    in_word = true;
    if (letter == quote) {
      quote = 0;
    } else if (quote == 0 && (letter == '\'' || letter == '"')) {
      quote = letter;
    } else if (letter == '\\' && quote != '\'' && i + 1 < line.size()) {
      words.back() += line[++i];
    } else {
      words.back() += letter;
    }
  }
  if (quote != 0) throw UsageError(std::string("a ") + quote + " has no end; add one");
  return words;
}

int RunLines(std::istream& lines, const std::function<int(const std::vector<std::string>&)>& run) {
  int number = 0;
  for (std::string line; std::getline(lines, line);) {
    ++number;
    try {
      const auto words = SplitWords(line);
      const int status = words.empty() ? kDone : run(words);
      if (status != kDone) return status;
    } catch (const Failure& failure) {
      throw Failure(failure.status(), "line " + std::to_string(number) + ": " + failure.what());
    }
  }
  return kDone;
}

}  // namespace kvox::client
