#include "kvox/common/near_matches.h"

#include <algorithm>
#include <numeric>
#include <utility>

#include "kvox/common/fixed_text.h"

namespace kvox {
namespace {

char Lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

size_t EditDistance(std::string_view a, std::string_view b) {
  std::vector<size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 0; i < a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i + 1;
    for (size_t j = 0; j < b.size(); ++j) {
      const size_t replaced = diagonal + (Lower(a[i]) == Lower(b[j]) ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
    }
  }
  return row[b.size()];
}

std::vector<std::string> NearMatches(const std::string& word,
                                     const std::vector<std::string>& names) {
  constexpr size_t kMost = 3;
  constexpr size_t kLongest = 64;  // longer words have no suggestions
  if (word.empty() || word.size() > kLongest) return {};
  std::vector<std::pair<size_t, std::string>> near;
  for (const std::string& name : names) {
    const size_t distance = EditDistance(word, name);
    const size_t size = std::max(word.size(), name.size());
    const size_t allowed = std::min(std::max<size_t>(2, size / 3), size / 2);
    const bool begins = EditDistance(name.substr(0, word.size()), word) == 0;
    if (distance <= allowed || begins) near.emplace_back(distance, name);
  }
  std::stable_sort(near.begin(), near.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  std::vector<std::string> best;
  for (const auto& [distance, name] : near) {
    if (best.size() < kMost && std::find(best.begin(), best.end(), name) == best.end()) {
      best.push_back(name);
    }
  }
  return best;
}

std::string DidYouMean(const std::string& word, const std::vector<std::string>& names) {
  std::string text;
  const std::vector<std::string> near = NearMatches(word, names);
  for (size_t i = 0; i < near.size(); ++i) {
    text += (i == 0 ? "did you mean '" : i + 1 == near.size() ? " or '" : ", '") + near[i] + "'";
  }
  return near.empty() ? "" : text + "?";
}

std::string NotFound(const std::string& what, const std::string& word,
                     const std::vector<std::string>& names, const std::string& hint) {
  constexpr size_t kShown = 80;
  const std::string near = DidYouMean(word, names);
  return "there is no " + what + " '" + ValidUtf8(word.substr(0, kShown)) + "'; " + near +
         (near.empty() ? "" : " ") + hint;
}

}  // namespace kvox
