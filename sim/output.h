// The simulator's printed output. It never fails: a pipe without a reader is ignored.
#pragma once

#include <fmt/format.h>

#include <cstdio>
#include <string>
#include <utility>

#include "kvox/common/kvox_utils.h"

namespace kvox::sim {

template <typename... Args>
void Print(FILE* file, fmt::format_string<Args...> format, Args&&... args) {
  const std::string text = fmt::format(format, std::forward<Args>(args)...);
  std::fwrite(text.data(), 1, text.size(), file);
}

/// The lines of --print: one for each change, with the seconds since the start. One thread.
class Journal {
 public:
  /// Drops all lines when `file` is null.
  explicit Journal(FILE* file = nullptr) : file_(file) {}

  template <typename... Args>
  void Log(fmt::format_string<Args...> format, Args&&... args) {
    if (file_ == nullptr) return;
    const auto elapsed = static_cast<double>(GetTimestampNs() - start_ns_);
    Print(file_, "{:9.3f}  {}\n", elapsed / 1e9, fmt::format(format, std::forward<Args>(args)...));
  }

 private:
  FILE* const file_;
  const uint64_t start_ns_ = GetTimestampNs();
};

}  // namespace kvox::sim
