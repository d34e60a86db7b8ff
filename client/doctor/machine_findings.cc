// Findings about the machine: real-time priority, wake locks, disk space.

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "client/doctor/findings.h"
#include "client/doctor/rights.h"
#include "kvox/common/fixed_text.h"

namespace kvox::client {
namespace {

constexpr double kBytesPerMinute = 48000 * 2 * 2 * 60;  // 48 kHz, two channels, 16 bits
constexpr double kLittleMinutes = 60;

std::string Gigabytes(double bytes) {
  return FormatText<32>(bytes < 1e10 ? "%.2f GB" : "%.0f GB", bytes / 1e9);
}

std::string Duration(double minutes) {
  return minutes < 120 ? FormatText<32>("%.0f min", minutes)
                       : FormatText<32>("%.0f h", minutes / 60);
}

/// Only the kernel's own files keep it awake; others stand for them.
std::string KeepAwake(const std::string& missing) {
  const std::filesystem::path directory = std::filesystem::path(missing).parent_path();
  if (directory.string().starts_with("/sys")) {
    return "systemd-inhibit --what=sleep:idle --why=audio sleep infinity &";
  }
  const std::string word = ShellWord(directory);
  return "mkdir -p " + word + " && touch " + word + "/wake_lock " + word + "/wake_unlock";
}

}  // namespace

void CheckScheduling(const Facts& facts, std::vector<Finding>& findings) {
  Subject subject("realtime", FormatText<64>("real-time priority SCHED_FIFO %d", facts.priority),
                  findings);
  const bool other_user = !facts.running && facts.daemon.uid != facts.me.uid;
  const ProcessFacts& process = facts.running ? *facts.running : facts.own;
  const std::string pid = std::to_string(process.pid);
  if (other_user || !process.rtprio_limit) {
    const bool hidden = facts.running || facts.reply.status == kNotAllowed;
    return subject.Warn(hidden ? "not known: kvoxd's process cannot be seen by " + UserOf(facts.me)
                               : "not known before kvoxd runs",
                        hidden ? kAsRoot : StartCommand(facts));
  }
  const std::string whose = facts.running ? "kvoxd (process " + pid + ")" : "a kvoxd started here";
  if (process.sys_nice) {
    subject.Ok(whose + " gets it by CAP_SYS_NICE");
  } else if (*process.rtprio_limit >= static_cast<uint64_t>(facts.priority)) {
    subject.Ok(whose + " gets it by its limit of rtprio");
  } else {
    subject.Warn(whose + " does not get it, its limit of rtprio is " +
                     std::to_string(*process.rtprio_limit) + ": packets are late on a busy machine",
                 Sudo(facts.me) + "prlimit --rtprio=" + std::to_string(facts.priority) + " --pid " +
                     (facts.running ? pid : "$$"));
  }
  if (facts.rt_runtime_us && *facts.rt_runtime_us == 0) {
    subject.Warn("kernel.sched_rt_runtime_us is 0: such threads get no time",
                 Sudo(facts.me) + "sysctl kernel.sched_rt_runtime_us=950000");
  }
}

void CheckWakeLocks(const Facts& facts, std::vector<Finding>& findings) {
  for (const PathFacts& file : facts.wake_locks) {
    Subject subject("wakelock", "wake lock " + file.path, findings);
    const std::string user = UserOf(facts.daemon);
    if (file.error != 0) {
      return subject.Warn(
          WhatIsThere(file) +
              ": wake locks are counted, but this machine may sleep while audio flows",
          KeepAwake(file.path));
    }
    if (May(facts.daemon, file, kWrite)) {
      subject.Ok(user + " may write");
    } else {
      subject.Warn(user + " has no right to write: this machine may sleep while audio flows",
                   Grant(facts.me, facts.daemon, file, kWrite, ShellWord(file.path)));
    }
  }
}

void CheckCaptures(const Facts& facts, std::vector<Finding>& findings) {
  const PathFacts& directory = facts.captures;
  const std::string word = ShellWord(directory.path);
  Subject subject("captures", "captures in " + directory.path, findings);
  if (directory.error == ENOENT && !directory.link) {
    return subject.Warn(WhatIsThere(directory), "mkdir -p " + word);
  }
  if (directory.error != 0 || !S_ISDIR(directory.mode)) {
    const std::string parent = std::filesystem::path(directory.path).parent_path();
    return subject.Warn(WhatIsThere(directory) + (directory.error == 0 ? ", not a directory" : ""),
                        "kvoxctl doctor --captures " + ShellWord(parent.empty() ? "." : parent));
  }
  if (!May(facts.daemon, directory, kWrite | kSearch)) {
    return subject.Warn(UserOf(facts.daemon) + " has no right to write and search it",
                        Grant(facts.me, facts.daemon, directory, kWrite | kSearch, word));
  }
  const auto bytes = static_cast<double>(facts.free_bytes);
  const double minutes = bytes / kBytesPerMinute;
  const std::string room =
      Gigabytes(bytes) + " free, " + Duration(minutes) + " of one buffer at 48 kHz, 2 x 16 bits";
  if (minutes >= kLittleMinutes) return subject.Ok(room);
  subject.Warn("only " + room, "df -h; ls -lhS " + word);
}

}  // namespace kvox::client
