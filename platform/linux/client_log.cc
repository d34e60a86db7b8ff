// The log of programs that link libkvox: the binder's own warnings and errors, on standard error
// under the program's name. Such programs need no log library.

#include <errno.h>

#include <cstdio>

#include "kvox/common/fixed_text.h"
#include "kvox/common/log.h"

namespace kvox {
namespace {

class StandardError : public LogTarget {
 public:
  void Write(LogPriority priority, const char*, const char* line) override {
    if (priority == LogPriority::kInfo) return;
    fprintf(stderr, "%s: %s\n", program_invocation_short_name, EscapeControls(line).c_str());
  }
};

}  // namespace

LogTarget& SystemLog() {
  static StandardError log;
  return log;
}

}  // namespace kvox
