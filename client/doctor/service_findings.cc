// The way to the daemon: runtime directory, socket, answer, interface.

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

bool IsTooLong(const Place& place) {
  return place.socket.path.size() > kLongestSocketPath;
}

/// Nothing is there: kvoxd makes a directory.
bool IsFree(const PathFacts& path) {
  return path.error == ENOENT && !path.link;
}

bool IsDirectory(const PathFacts& path) {
  return path.error == 0 && S_ISDIR(path.mode);
}

/// Collects findings about one object.
class Report {
 public:
  Report(const char* check, std::string object, std::vector<Finding>& findings)
      : check_(check), object_(std::move(object)), findings_(findings) {}

  void Ok(const std::string& cause) { Add(Verdict::kOk, cause, ""); }
  void Warn(const std::string& cause, const std::string& fix) {
    Add(Verdict::kWarning, cause, fix);
  }
  void Fail(const std::string& cause, const std::string& fix) { Add(Verdict::kFailed, cause, fix); }

 private:
  void Add(Verdict verdict, const std::string& cause, const std::string& fix) {
    findings_.push_back({verdict, check_, object_, cause, fix});
  }

  const char* const check_;
  const std::string object_;
  std::vector<Finding>& findings_;
};

/// "mode 0750, user kvox, group kvox"
std::string RightsOf(const PathFacts& path) {
  return FormatText<16>("mode %04o", path.mode & 07777) + ", user " + path.owner + ", group " +
         path.group;
}

/// What kvoxd or this user has against the directory; nothing to say where that is nothing.
void JudgeOwnership(const Facts& facts, Report& report) {
  const PathFacts& directory = facts.place->directory;
  const std::string word = ShellWord(directory.path);
  const std::string daemon = "kvoxd (" + UserOf(facts.daemon) + ")";
  if (directory.uid != 0 && directory.uid != facts.daemon.uid) {
    return report.Fail("it belongs to user " + directory.owner + ", and " + daemon + " refuses it",
                       Sudo(facts.me) + "chown " + ShellWord(facts.daemon.name) + " " + word);
  }
  if ((directory.mode & S_IWOTH) != 0 && (directory.mode & S_ISVTX) == 0) {
    const std::string sudo = facts.me.uid == directory.uid ? "" : Sudo(facts.me);
    return report.Fail("everybody may write to it, and kvoxd refuses it",
                       sudo + "chmod o-w " + word);
  }
  if (!May(facts.daemon, directory, kWrite | kSearch)) {
    return report.Fail(daemon + " has no right to write and search it",
                       Grant(facts.me, facts.daemon, directory, kWrite | kSearch, word));
  }
  if (!May(facts.me, directory, kSearch)) {
    return report.Fail(UserOf(facts.me) + " has no right to search it",
                       Join(facts.me, directory, kSearch));
  }
  report.Ok(RightsOf(directory));
}

void JudgeSocket(const Facts& facts, std::vector<Finding>& findings) {
  const PathFacts& socket = facts.place->socket;
  if (socket.error != 0) return;  // what there is to say, directory and answer tell
  Report report("socket", "socket " + socket.path, findings);
  const std::string word = ShellWord(socket.path);
  if (!S_ISSOCK(socket.mode)) return report.Fail(WhatIsThere(socket), "rm -ri " + word);
  if (!May(facts.me, socket, kWrite)) {
    return report.Fail(UserOf(facts.me) + " has no right to write to it",
                       Join(facts.me, socket, kWrite));
  }
  if ((socket.mode & S_IWOTH) != 0) {
    const std::string sudo = facts.me.uid == socket.uid ? "" : Sudo(facts.me);
    return report.Warn("every user may call the daemon", sudo + "chmod 0660 " + word);
  }
  report.Ok(RightsOf(socket));
}

/// Who waited for less has not seen that the daemon hangs.
constexpr double kFairWait_s = 2;

/// "process 12 of user kvox"; "" when it was not found.
std::string ProcessOf(const Facts& facts) {
  if (!facts.running) return "";
  return "process " + std::to_string(facts.running->pid) + " of " + UserOf(facts.daemon);
}

/// What to do with a daemon that does not answer.
std::string Awaken(const Facts& facts) {
  if (!facts.running) return StartCommand(facts);
  const std::string sudo = facts.me.uid == facts.daemon.uid ? "" : Sudo(facts.me);
  const char* const signal = facts.running->state == 'T' ? "CONT " : "KILL ";
  return sudo + "kill -" + signal + std::to_string(facts.running->pid);
}

void JudgeSilence(const Facts& facts, Report& report) {
  const DaemonReply& answer = facts.answer;
  if (facts.running && facts.running->state == 'T') {
    return report.Fail("its " + ProcessOf(facts) + " is stopped", Awaken(facts));
  }
  if (answer.status == kTimedOut) {
    return report.Fail(FormatText<64>("no answer within %g s", facts.waited_s),
                       facts.waited_s < kFairWait_s ? "kvoxctl doctor" : Awaken(facts));
  }
  // The error's own next step is for those who have no other.
  const std::string cause = answer.error.substr(0, answer.error.find("; "));
  if (answer.status == kNotAllowed && facts.place) {
    const bool socket = facts.place->socket.error == 0;
    return report.Fail(cause, socket ? Join(facts.me, facts.place->socket, kWrite)
                                     : Join(facts.me, facts.place->directory, kSearch));
  }
  report.Fail(cause, StartCommand(facts));
}

void JudgeInterface(const Facts& facts, std::vector<Finding>& findings) {
  Report report("interface", "interface IKvox", findings);
  const std::string version = "version " + std::to_string(facts.answer.version);
  if (facts.answer.version == facts.own_version) return report.Ok(version + " on both sides");
  report.Warn("kvoxd has " + version + ", kvoxctl version " + std::to_string(facts.own_version) +
                  ": they are of two releases",
              Sudo(facts.me) + "apt install kvoxd kvoxctl && " + Sudo(facts.me) +
                  "systemctl restart kvoxd");
}

}  // namespace

std::string StartCommand(const Facts& facts) {
  if (!facts.place) return "start kvoxd";
  if (facts.daemon.uid != facts.me.uid) return Sudo(facts.me) + "systemctl start kvoxd";
  const Place& place = *facts.place;
  const bool fits = !IsTooLong(place) && (IsFree(place.directory) || IsDirectory(place.directory));
  return (fits ? std::string() : std::string(kAnotherDirectory) + "; ") + "kvoxd 2>kvoxd.log &";
}

void JudgeRuntimeDirectory(const Facts& facts, std::vector<Finding>& findings) {
  if (!facts.place) return;
  const PathFacts& directory = facts.place->directory;
  Report report("runtime", "runtime directory " + directory.path, findings);
  if (IsTooLong(*facts.place)) {
    return report.Fail(
        FormatText<128>("the path of the socket in it has %zu bytes, %zu is the most",
                        facts.place->socket.path.size(), kLongestSocketPath),
        kAnotherDirectory);
  }
  if (IsFree(directory)) return report.Warn("is not there; kvoxd makes it", StartCommand(facts));
  if (!IsDirectory(directory)) return report.Fail(WhatIsThere(directory), kAnotherDirectory);
  JudgeOwnership(facts, report);
  JudgeSocket(facts, findings);
}

void JudgeDaemon(const Facts& facts, std::vector<Finding>& findings) {
  Report report("daemon", "daemon kvoxd", findings);
  if (facts.answer.status != kDone) return JudgeSilence(facts, report);
  const std::string process = ProcessOf(facts);
  const std::string answer = FormatText<64>("answers in %.1f us", facts.answer.round_trip_us);
  if (facts.answer.round_trip_us <= kSlowUs) {
    report.Ok(answer + (process.empty() ? "" : ", " + process));
  } else {
    report.Warn(answer + ": it or this machine is very busy",
                facts.running ? "top -H -p " + std::to_string(facts.running->pid) : "top -H");
  }
  JudgeInterface(facts, findings);
}

}  // namespace kvox::client
