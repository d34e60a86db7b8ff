#include "platform/linux/cut_off_log.h"

#include <utility>

#include "kvox/common/log.h"
#include "platform/linux/limits.h"
#include "platform/linux/reactor.h"
#include "platform/linux/thread_pool.h"

namespace kvox::binder {
namespace {

constexpr std::chrono::seconds kSecond{1};

CutOffLog& TheLog() {
  static CutOffLog* const log = new CutOffLog;  // outlives every thread, also at exit
  return *log;
}

}  // namespace

std::string CutOffLog::Line(const Credentials& peer, const char* fault, Clock::time_point now,
                            bool* first_left_out) {
  *first_left_out = false;
  MutexLock lock(mutex_);
  if (now - second_begin_ >= kSecond) {
    second_begin_ = now;
    lines_ = 0;
  }
  if (lines_ == kCutOffLinesPerSecond) {
    *first_left_out = left_out_++ == 0;
    return "";
  }
  ++lines_;
  return "binder: process " + std::to_string(peer.pid) + " of user " + std::to_string(peer.uid) +
         " was cut off: it sent " + fault;
}

std::string CutOffLog::Rest() {
  MutexLock lock(mutex_);
  return "binder: " + std::to_string(std::exchange(left_out_, 0)) +
         " more clients were cut off within a second, too many to name";
}

void ReportCutOff(const Credentials& peer, const char* fault) {
  bool first_left_out = false;
  const std::string line = TheLog().Line(peer, fault, CutOffLog::Clock::now(), &first_left_out);
  if (!line.empty()) LogWarning("%s", line.c_str());
  if (!first_left_out) return;
  Reactor::Get().RunLater(
      kSecond, [] { ThreadPool::Get().Post([] { LogWarning("%s", TheLog().Rest().c_str()); }); });
}

}  // namespace kvox::binder
