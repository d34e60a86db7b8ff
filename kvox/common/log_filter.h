// Which lines of the log are kept, as ANDROID_LOG_TAGS tells. Pure.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "kvox/common/log.h"

namespace kvox {

/// A list of TAG:PRIORITY, separated by blanks or commas. A tag's lines are kept from its priority
/// on: v, d, i, w, e or f (either case), s for none at all, v where none is given. The tag * stands
/// for all that are not listed; without it those are kept. Entries that say something else are
/// passed over. Any thread.
class LogFilter {
 public:
  /// Null keeps everything.
  explicit LogFilter(const char* list);

  bool Keeps(LogPriority priority, std::string_view tag) const;

 private:
  struct Rule {
    std::string tag;
    int least;
  };
  void Add(std::string_view entry);

  std::vector<Rule> rules_;
  int least_of_others_ = 0;
};

}  // namespace kvox
