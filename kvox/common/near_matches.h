// Suggestions for misspelt words.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kvox {

/// The edit distance between two words, ignoring case.
size_t EditDistance(std::string_view a, std::string_view b);

/// Up to three of `names` that resemble `word` or begin with it, nearest first.
std::vector<std::string> NearMatches(const std::string& word,
                                     const std::vector<std::string>& names);

/// "did you mean 'A' or 'B'?", or "" when nothing resembles `word`.
std::string DidYouMean(const std::string& word, const std::vector<std::string>& names);

/// "there is no WHAT 'WORD'; did you mean 'A' or 'B'? HINT"
std::string NotFound(const std::string& what, const std::string& word,
                     const std::vector<std::string>& names, const std::string& hint);

}  // namespace kvox
