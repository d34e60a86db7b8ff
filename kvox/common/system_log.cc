// A separate file, so that a program with its own SystemLog() needs no log library.

#include <android/log.h>

#include "kvox/common/log.h"

namespace kvox {
namespace {

class LibraryLog : public LogTarget {
 public:
  void Write(LogPriority priority, const char* tag, const char* line) override {
    __android_log_write(static_cast<int>(priority), tag, line);
  }
};

}  // namespace

LogTarget& SystemLog() {
  static LibraryLog log;
  return log;
}

}  // namespace kvox
