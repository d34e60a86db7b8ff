#include "tests/campaign/caller.h"

#include <algorithm>

namespace kvox::campaign {

CallWatch::Entries::iterator CallWatch::Begin(const char* name) {
  const std::lock_guard lock(mutex_);
  return under_way_.emplace(under_way_.end(), name, Clock::now());
}

void CallWatch::End(Entries::iterator entry) {
  const std::lock_guard lock(mutex_);
  const auto time = Clock::now() - entry->second;
  if (time > slowest_time_) {
    slowest_time_ = time;
    slowest_ = entry->first;
  }
  under_way_.erase(entry);
}

std::optional<std::string> CallWatch::Overdue(Ms limit) const {
  const std::lock_guard lock(mutex_);
  for (const auto& [name, begin] : under_way_) {
    if (Clock::now() - begin > limit) return name;
  }
  return std::nullopt;
}

std::string CallWatch::Slowest() const {
  const std::lock_guard lock(mutex_);
  const auto ms = std::chrono::duration_cast<Ms>(slowest_time_).count();
  return slowest_ + (" " + std::to_string(ms)) + " ms";
}

std::string Answer::Text() const {
  if (!delivered) return "kvoxd was not reached";
  std::string text = "status " + std::to_string(static_cast<int>(result.status));
  for (const std::string& line : result.lines) text += " | " + line;
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

}  // namespace kvox::campaign
