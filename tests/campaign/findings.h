// What went wrong. The first finding ends a run.
#pragma once

#include <fmt/format.h>

#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kvox::campaign {

/// Any thread.
class Findings {
 public:
  template <typename... Arguments>
  void Add(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    std::string text = fmt::format(format, std::forward<Arguments>(arguments)...);
    const std::lock_guard lock(mutex_);
    if (found_.size() < kMost) found_.push_back(std::move(text));
  }
  bool any() const {
    const std::lock_guard lock(mutex_);
    return !found_.empty();
  }
  std::vector<std::string> all() const {
    const std::lock_guard lock(mutex_);
    return found_;
  }

 private:
  static constexpr size_t kMost = 50;

  mutable std::mutex mutex_;
  std::vector<std::string> found_;
};

}  // namespace kvox::campaign
