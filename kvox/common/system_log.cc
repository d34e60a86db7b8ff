// A file of its own: a program that brings another SystemLog() does without the log library.

#include <android/log.h>

#include <cstdlib>

#include "kvox/common/log.h"
#include "kvox/common/log_filter.h"

namespace kvox {
namespace {

/// The library's own filter is not in every build of it.
class LibraryLog : public LogTarget {
 public:
  void Write(LogPriority priority, const char* tag, const char* line) override {
    if (filter_.Keeps(priority, tag)) __android_log_write(static_cast<int>(priority), tag, line);
  }

 private:
  const LogFilter filter_{std::getenv("ANDROID_LOG_TAGS")};
};

}  // namespace

LogTarget& SystemLog() {
  static LibraryLog log;
  return log;
}

}  // namespace kvox
