// Sets up a host program's libraries. A separate file, so that only programs that call
// PreparePlatform() need the log library.
#include <android/log.h>
#include <event2/thread.h>
#include <log/logprint.h>
#include <malloc.h>
#include <stdlib.h>

#include "kvox/common/fixed_text.h"
#include "platform/linux/limits.h"
#include "platform/platform.h"

namespace kvox {
namespace {

AndroidLogFormat* tag_filter = nullptr;  // set before any other thread runs; null: all is kept

/// One line of text for one of the log, whatever clients have put into names and paths.
void WriteLine(const __android_logger_data* line, const char* text) {
  const auto priority = static_cast<android_LogPriority>(line->priority);
  if (tag_filter != nullptr && android_log_shouldPrintLine(tag_filter, line->tag, priority) == 0) {
    return;
  }
  __android_log_stderr_logger(line, EscapeControls(text).c_str());
}

/// By itself the log library filters by ANDROID_LOG_TAGS only what it reads, not what it writes.
void PrepareLog() {
  if (const char* const tags = getenv("ANDROID_LOG_TAGS"); tags != nullptr) {
    tag_filter = android_log_format_new();
    android_log_addFilterString(tag_filter, tags);
  }
  __android_log_set_logger(WriteLine);
}

}  // namespace

void PreparePlatform() {
  mallopt(M_MMAP_THRESHOLD, binder::kMmapBytes);
  // The binder's event loop needs it; the program must not create its own event loop before.
  evthread_use_pthreads();
  PrepareLog();
}

}  // namespace kvox
