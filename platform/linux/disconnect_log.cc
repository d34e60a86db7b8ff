#include "platform/linux/disconnect_log.h"

#include <utility>

#include "kvox/common/log.h"
#include "platform/linux/limits.h"
#include "platform/linux/reactor.h"

namespace kvox::binder {
namespace {

constexpr std::chrono::seconds kSecond{1};

DisconnectLog& TheLog() {
  static DisconnectLog* const log = new DisconnectLog;  // outlives every thread, also at exit
  return *log;
}

}  // namespace

std::string DisconnectLog::Line(const Credentials& peer, const char* fault, Clock::time_point now,
                                bool* first_dropped) {
  *first_dropped = false;
  MutexLock lock(mutex_);
  if (now - second_begin_ >= kSecond) {
    second_begin_ = now;
    lines_ = 0;
  }
  if (lines_ == kDisconnectLinesPerSecond) {
    *first_dropped = dropped_++ == 0;
    return "";
  }
  ++lines_;
  return "binder: process " + std::to_string(peer.pid) + " of user " + std::to_string(peer.uid) +
         " was cut off: it sent " + fault;
}

std::string DisconnectLog::Summary() {
  MutexLock lock(mutex_);
  return "binder: " + std::to_string(std::exchange(dropped_, 0)) +
         " more clients were cut off within a second, too many to name";
}

void LogDisconnect(const Credentials& peer, const char* fault) {
  bool first_dropped = false;
  const std::string line = TheLog().Line(peer, fault, DisconnectLog::Clock::now(), &first_dropped);
  if (!line.empty()) LogWarning("%s", line.c_str());
  if (!first_dropped) return;
  Reactor::Get().PostLater(kSecond, [] { LogWarning("%s", TheLog().Summary().c_str()); });
}

}  // namespace kvox::binder
