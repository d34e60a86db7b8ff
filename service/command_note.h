// Notes a command of a client in the flight log.
#pragma once

#include <android/binder_ibinder.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

#include "kvox/common/kvox_utils.h"
#include "kvox/flight/flight_log.h"
#include "service/report.h"

namespace kvox {

/// The process whose call this thread serves; 0 for none, when a thread of the daemon acts.
inline uint32_t CallingProcess() {
  const pid_t pid = AIBinder_getCallingPid();
  return pid == getpid() ? 0 : static_cast<uint32_t>(pid);
}

/// Lives as long as the command, on its thread. The report may be one that earlier commands share.
class CommandNote {
 public:
  CommandNote(flight::FlightLog& log, const Report& report)
      : log_(log), report_(report), lines_before_(report.lines.size()), before_(report.status) {}
  ~CommandNote() {
    const bool any = lines_before_ < report_.lines.size();
    const bool failed = report_.status != before_;  // else the status is an earlier command's
    log_.Record({.kind = flight::EventKind::kCommand,
                 .subject = "",
                 .text = any ? report_.lines[lines_before_] : "",
                 .status = failed ? static_cast<int32_t>(report_.status) : 0,
                 .duration_ns = GetTimestampNs() - begin_ns_});
  }
  CommandNote(const CommandNote&) = delete;
  CommandNote& operator=(const CommandNote&) = delete;

 private:
  flight::FlightLog& log_;
  const flight::CallerScope caller_{CallingProcess()};
  const Report& report_;
  const size_t lines_before_;
  const StatusCode before_;
  const uint64_t begin_ns_ = GetTimestampNs();
};

}  // namespace kvox
