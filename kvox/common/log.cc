#include "kvox/common/log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>

namespace kvox {
namespace {

constexpr char kTag[] = "kvox";

thread_local LogTarget* thread_target = nullptr;
std::atomic<LogTarget*> process_target = nullptr;

[[gnu::format(printf, 3, 0)]] void LogLine(LogPriority priority, const char* tag,
                                           const char* format, va_list args) {
  char line[kLogLineSize];
  vsnprintf(line, sizeof line, format, args);
  LogTarget* target = thread_target;
  // Acquire: pairs with the release in ScopedProcessLog, which publishes the target's construction.
  if (target == nullptr) target = process_target.load(std::memory_order_acquire);
  if (target == nullptr) target = &SystemLog();
  target->Write(priority, tag, line);
}

}  // namespace

#define KVOX_DEFINE_LOG(Function, priority) \
  void Function(const char* format, ...) {  \
    va_list args;                           \
    va_start(args, format);                 \
    LogLine(priority, kTag, format, args);  \
    va_end(args);                           \
  }
KVOX_DEFINE_LOG(LogInfo, LogPriority::kInfo)
KVOX_DEFINE_LOG(LogWarning, LogPriority::kWarning)
KVOX_DEFINE_LOG(LogError, LogPriority::kError)
#undef KVOX_DEFINE_LOG

void LogTagged(LogPriority priority, const char* tag, const char* format, ...) {
  va_list args;
  va_start(args, format);
  LogLine(priority, tag, format, args);
  va_end(args);
}

ScopedThreadLog::ScopedThreadLog(LogTarget& target) : previous_(thread_target) {
  thread_target = &target;
}
ScopedThreadLog::~ScopedThreadLog() {
  thread_target = previous_;
}

ScopedProcessLog::ScopedProcessLog(LogTarget& target) {
  process_target.store(&target, std::memory_order_release);
}
ScopedProcessLog::~ScopedProcessLog() {
  process_target.store(nullptr, std::memory_order_release);
}

}  // namespace kvox
