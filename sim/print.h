// Formatted output that cannot fail: a pipe whose reader has gone is nobody's concern.
#pragma once

#include <fmt/format.h>

#include <cstdio>
#include <string>
#include <utility>

namespace kvox::sim {

template <typename... Args>
void Print(FILE* file, fmt::format_string<Args...> format, Args&&... args) {
  const std::string text = fmt::format(format, std::forward<Args>(args)...);
  std::fwrite(text.data(), 1, text.size(), file);
}

}  // namespace kvox::sim
