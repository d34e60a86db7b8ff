// Sets up a host program's libraries. A separate file, so that only programs that call
// PreparePlatform() need the log library.
#include <android/log.h>
#include <event2/thread.h>
#include <log/logprint.h>
#include <malloc.h>
#include <stdlib.h>

#include "platform/linux/limits.h"
#include "platform/platform.h"

namespace kvox {
namespace {

AndroidLogFormat* tag_filter = nullptr;  // set before any other thread runs

void WriteIfKept(const __android_logger_data* line, const char* text) {
  const auto priority = static_cast<android_LogPriority>(line->priority);
  if (android_log_shouldPrintLine(tag_filter, line->tag, priority) == 0) return;
  __android_log_stderr_logger(line, text);
}

/// Makes the log library filter what it writes by ANDROID_LOG_TAGS. By itself it does so only for
/// what it reads.
void FilterLog() {
  const char* tags = getenv("ANDROID_LOG_TAGS");
  if (tags == nullptr) return;
  tag_filter = android_log_format_new();
  android_log_addFilterString(tag_filter, tags);
  __android_log_set_logger(WriteIfKept);
}

}  // namespace

void PreparePlatform() {
  mallopt(M_MMAP_THRESHOLD, binder::kMmapBytes);
  // The binder's event loop needs it; the program must not create its own event loop before.
  evthread_use_pthreads();
  FilterLog();
}

}  // namespace kvox
