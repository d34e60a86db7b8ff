// Command lines from standard input: "kvoxctl -".
#pragma once

#include <functional>
#include <istream>
#include <string>
#include <vector>

namespace kvox::client {

/// Splits a line as a shell would, without expanding anything: blanks separate words, quotes and
/// backslashes keep them together, # begins a comment. Throws UsageError for a quote without end.
std::vector<std::string> SplitWords(const std::string& line);

/// Runs each line until one does not return kDone, and returns its status. Throws what it throws,
/// with the line's number before it, as Failure.
int RunLines(std::istream& lines, const std::function<int(const std::vector<std::string>&)>& run);

}  // namespace kvox::client
