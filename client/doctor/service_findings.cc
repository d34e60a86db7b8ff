// Findings about the connection to the daemon: runtime directory, socket, reply, interface.

#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>

#include "client/doctor/findings.h"
#include "client/doctor/rights.h"
#include "kvox/common/fixed_text.h"

namespace kvox::client {
namespace {

constexpr size_t kLongestSocketPath = sizeof(sockaddr_un::sun_path) - 1;
constexpr double kSlowUs = 100'000;
constexpr char kAnotherDirectory[] = "export KVOX_RUNTIME_DIR=$(mktemp -d)";

bool IsTooLong(const SocketLocation& location) {
  return location.socket.path.size() > kLongestSocketPath;
}

/// kvoxd creates a directory there.
bool IsFree(const PathFacts& path) {
  return path.error == ENOENT && !path.link;
}

bool IsDirectory(const PathFacts& path) {
  return path.error == 0 && S_ISDIR(path.mode);
}

/// "mode 0750, user kvox, group kvox"
std::string RightsOf(const PathFacts& path) {
  return FormatText<16>("mode %04o", path.mode & 07777) + ", user " + path.owner + ", group " +
         path.group;
}

/// Whether kvoxd accepts the directory, and this user may use it.
void CheckOwnership(const Facts& facts, Subject& subject) {
  const PathFacts& directory = facts.location->directory;
  const std::string word = ShellWord(directory.path);
  const std::string daemon = "kvoxd (" + UserOf(facts.daemon) + ")";
  if (directory.uid != 0 && directory.uid != facts.daemon.uid) {
    return subject.Fail("it belongs to user " + directory.owner + ", and " + daemon + " refuses it",
                        Sudo(facts.me) + "chown " + ShellWord(facts.daemon.name) + " " + word);
  }
  const bool keeps_ours = (directory.mode & S_ISVTX) != 0 && directory.uid == facts.daemon.uid;
  if ((directory.mode & (S_IWGRP | S_IWOTH)) != 0 && !keeps_ours) {
    return subject.Fail("others may write to it, and kvoxd refuses it",
                        Sudo(facts.me, directory.uid) + "chmod go-w " + word);
  }
  if (!May(facts.daemon, directory, kWrite | kSearch)) {
    return subject.Fail(daemon + " has no right to write and search it",
                        Grant(facts.me, facts.daemon, directory, kWrite | kSearch, word));
  }
  if (!May(facts.me, directory, kSearch)) {
    return subject.Fail(UserOf(facts.me) + " has no right to search it",
                        Join(facts.me, directory, kSearch));
  }
  subject.Ok(RightsOf(directory));
}

void CheckSocket(const Facts& facts, std::vector<Finding>& findings) {
  const PathFacts& socket = facts.location->socket;
  if (socket.error != 0) return;  // directory and reply say why
  Subject subject("socket", "socket " + socket.path, findings);
  const std::string word = ShellWord(socket.path);
  if (!S_ISSOCK(socket.mode)) return subject.Fail(WhatIsThere(socket), "rm -ri " + word);
  if (!May(facts.me, socket, kWrite)) {
    return subject.Fail(UserOf(facts.me) + " has no right to write to it",
                        Join(facts.me, socket, kWrite));
  }
  if ((socket.mode & S_IWOTH) != 0) {
    return subject.Warn("every user may call the daemon",
                        Sudo(facts.me, socket.uid) + "chmod 0660 " + word);
  }
  subject.Ok(RightsOf(socket));
}

/// A daemon that does not reply for a shorter time may only be slow.
constexpr double kFairWait_s = 2;

/// "process 12 of user kvox"; "" when it was not found.
std::string ProcessOf(const Facts& facts) {
  if (!facts.running) return "";
  return "process " + std::to_string(facts.running->pid) + " of " + UserOf(facts.daemon);
}

/// A command for a daemon that does not reply.
std::string WakeCommand(const Facts& facts) {
  if (!facts.running) return StartCommand(facts);
  const std::string sudo = Sudo(facts.me, facts.daemon.uid);
  const std::string pid = std::to_string(facts.running->pid);
  if (facts.running->state == 'T') return sudo + "kill -CONT " + pid;
  return sudo + "kill -KILL " + pid + "; sleep 1; " + StartCommand(facts);
}

void DiagnoseSilence(const Facts& facts, Subject& subject) {
  const DaemonReply& reply = facts.reply;
  if (facts.running && facts.running->state == 'T') {
    return subject.Fail("its " + ProcessOf(facts) + " is stopped", WakeCommand(facts));
  }
  if (reply.status == kTimedOut) {
    return subject.Fail(FormatText<64>("no answer within %g s", facts.waited_s),
                        facts.waited_s < kFairWait_s ? "kvoxctl doctor" : WakeCommand(facts));
  }
  // Drops the error's own next step, since the fix is better.
  const std::string cause = reply.error.substr(0, reply.error.find("; "));
  if (reply.status == kNotAllowed && facts.location) {
    const bool socket = facts.location->socket.error == 0;
    return subject.Fail(cause, socket ? Join(facts.me, facts.location->socket, kWrite)
                                      : Join(facts.me, facts.location->directory, kSearch));
  }
  subject.Fail(cause, StartCommand(facts));
}

void CheckInterface(const Facts& facts, std::vector<Finding>& findings) {
  Subject subject("interface", "interface IKvox", findings);
  const std::string version = "version " + std::to_string(facts.reply.version);
  if (facts.reply.version == facts.own_version) return subject.Ok(version + " on both sides");
  subject.Warn("kvoxd has " + version + ", kvoxctl version " + std::to_string(facts.own_version) +
                   ": they are of two releases",
               Sudo(facts.me) + "apt install kvoxd kvoxctl && " + Sudo(facts.me) +
                   "systemctl restart kvoxd");
}

}  // namespace

std::string StartCommand(const Facts& facts) {
  if (!facts.location) return "start kvoxd";
  if (facts.daemon.uid != facts.me.uid) return Sudo(facts.me) + "systemctl start kvoxd";
  const SocketLocation& location = *facts.location;
  const bool fits =
      !IsTooLong(location) && (IsFree(location.directory) || IsDirectory(location.directory));
  return (fits ? std::string() : std::string(kAnotherDirectory) + "; ") + "kvoxd 2>kvoxd.log &";
}

void CheckRuntimeDirectory(const Facts& facts, std::vector<Finding>& findings) {
  if (!facts.location) return;
  const PathFacts& directory = facts.location->directory;
  Subject subject("runtime", "runtime directory " + directory.path, findings);
  if (IsTooLong(*facts.location)) {
    return subject.Fail(
        FormatText<128>("the path of the socket in it has %zu bytes, %zu is the most",
                        facts.location->socket.path.size(), kLongestSocketPath),
        kAnotherDirectory);
  }
  if (IsFree(directory)) return subject.Ok("is not there; kvoxd makes it");
  if (!IsDirectory(directory)) return subject.Fail(WhatIsThere(directory), kAnotherDirectory);
  CheckOwnership(facts, subject);
  CheckSocket(facts, findings);
}

void CheckDaemon(const Facts& facts, std::vector<Finding>& findings) {
  Subject subject("daemon", "daemon kvoxd", findings);
  if (facts.reply.status != kDone) return DiagnoseSilence(facts, subject);
  const std::string process = ProcessOf(facts);
  const std::string answer = FormatText<64>("answers in %.1f us", facts.reply.round_trip_us);
  if (facts.reply.round_trip_us <= kSlowUs) {
    subject.Ok(answer + (process.empty() ? "" : ", " + process));
  } else {
    subject.Warn(answer + ": it or this machine is very busy",
                 facts.running ? "top -H -p " + std::to_string(facts.running->pid) : "top -H");
  }
  CheckInterface(facts, findings);
}

}  // namespace kvox::client
