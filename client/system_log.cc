// The client's log is standard error: it starts faster without the log library, which it would
// hardly ever use.

#include <cstdio>

#include "kvox/common/log.h"

namespace kvox {
namespace {

class StandardError : public LogTarget {
 public:
  void Write(LogPriority priority, const char*, const char* line) override {
    if (priority != LogPriority::kInfo) fprintf(stderr, "kvoxctl: %s\n", line);
  }
};

}  // namespace

LogTarget& SystemLog() {
  static StandardError log;
  return log;
}

}  // namespace kvox
