#include "kvox/common/log_filter.h"

#include <algorithm>
#include <optional>

namespace kvox {
namespace {

constexpr std::string_view kSeparators = " \t\n,";

/// The letters in the order of their priorities, of which the first is 2.
constexpr std::string_view kLetters = "vdiwefs";
constexpr std::string_view kCapitals = "VDIWEFS";
constexpr int kFirst = 2;

std::optional<int> PriorityOf(std::string_view word) {
  if (word.empty()) return kFirst;
  if (word.size() > 1) return std::nullopt;
  const size_t at = std::min(kLetters.find(word[0]), kCapitals.find(word[0]));
  if (at == std::string_view::npos) return std::nullopt;
  return kFirst + static_cast<int>(at);
}

}  // namespace

LogFilter::LogFilter(const char* list) {
  std::string_view rest = list == nullptr ? "" : list;
  while (!rest.empty()) {
    const size_t end = std::min(rest.find_first_of(kSeparators), rest.size());
    Add(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
}

void LogFilter::Add(std::string_view entry) {
  const size_t colon = std::min(entry.rfind(':'), entry.size());
  const std::string_view tag = entry.substr(0, colon);
  const auto least = PriorityOf(entry.substr(std::min(colon + 1, entry.size())));
  if (tag.empty() || !least) return;
  if (tag == "*") {
    least_of_others_ = *least;
  } else {
    rules_.push_back({std::string(tag), *least});
  }
}

bool LogFilter::Keeps(LogPriority priority, std::string_view tag) const {
  const auto rule = std::ranges::find(rules_, tag, &Rule::tag);
  return static_cast<int>(priority) >= (rule == rules_.end() ? least_of_others_ : rule->least);
}

}  // namespace kvox
