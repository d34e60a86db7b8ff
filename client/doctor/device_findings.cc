// The device directory and the nodes in it.

#include <sys/stat.h>

#include <cerrno>

#include "client/doctor/findings.h"
#include "client/doctor/rights.h"
#include "kvox/common/device_names.h"

namespace kvox::client {
namespace {

using Findings = std::vector<Finding>;
using Nodes = std::vector<PathFacts>;

/// Requirements for the nodes of one kind.
struct Wanted {
  const char* check;
  const char* what;
  const char* name;     // of the node, or the prefix of the names
  uint32_t rights;      // of kvoxd
  bool takes_fifo;      // as well as a character device
  const char* without;  // the consequence when there is none
  Verdict without_verdict;
};

constexpr Wanted kControl = {"control",       "control device",
                             kControlDevice,  kRead | kWrite,
                             false,           "kvoxd cannot set up tap points",
                             Verdict::kFailed};
constexpr Wanted kTapOuts = {"tapouts", "tap-out devices",     kTapOutPrefix,   kRead,
                             true,      "kvoxd gets no audio", Verdict::kFailed};
constexpr Wanted kInjects = {
    "injects",        "inject devices", kInjectPrefix, kWrite, true, "kvoxd can send no audio back",
    Verdict::kWarning};

/// A command that starts the co-processor, or shows why it is missing.
std::string NodesFix(const Facts& facts) {
  const std::string& directory = facts.devices.path;
  if (directory == "/dev") return Sudo(facts.me) + "dmesg | grep -i kvox";
  return "KVOX_DEV_DIR=" + ShellWord(directory) + " kvosim >kvosim.log 2>&1 &";
}

/// Removes what is no device. A simulator that runs already refuses a second one.
std::string ReplaceFix(const Facts& facts, const Nodes& others) {
  std::string fix = "rm -ri";
  for (const PathFacts& node : others) fix.append(" ").append(ShellWord(node.path));
  return facts.devices.path == "/dev" ? fix : fix + "; " + NodesFix(facts);
}

bool IsDevice(const PathFacts& node, bool takes_fifo) {
  return node.error == 0 && (S_ISCHR(node.mode) || (takes_fifo && S_ISFIFO(node.mode)));
}

/// "xdv-kvox_tapout4 and 2 more: "; "" for the only node of its kind.
std::string Named(const Nodes& some, const Wanted& wanted) {
  if (!wanted.takes_fifo) return "";
  const std::string& path = some.front().path;
  const std::string more =
      some.size() > 1 ? " and " + std::to_string(some.size() - 1) + " more: " : ": ";
  return path.substr(path.rfind('/') + 1) + more;
}

void CheckNodes(const Facts& facts, const Wanted& wanted, const Nodes& nodes, Findings& findings) {
  const std::string path = facts.devices.path + "/" + wanted.name;
  Subject subject(wanted.check,
                  std::string(wanted.what) + " " + path + (wanted.takes_fifo ? "*" : ""), findings);
  if (nodes.empty()) {
    return subject.Add(wanted.without_verdict, std::string("there is none: ") + wanted.without,
                       NodesFix(facts));
  }
  Nodes others;
  Nodes refused;
  for (const PathFacts& node : nodes) {
    if (!IsDevice(node, wanted.takes_fifo)) {
      others.push_back(node);
    } else if (!May(facts.daemon, node, wanted.rights)) {
      refused.push_back(node);
    }
  }
  if (!others.empty()) {
    const PathFacts& first = others.front();
    subject.Fail(Named(others, wanted) + WhatIsThere(first) +
                     (wanted.takes_fifo ? ", not a device or FIFO" : ", not a device"),
                 first.error == EACCES ? kAsRoot : ReplaceFix(facts, others));
  }
  const std::string who = UserOf(facts.daemon);
  const std::string rights = NameOf(wanted.rights);
  if (!refused.empty()) {
    const std::string words =
        refused.size() == 1 ? ShellWord(refused.front().path) : ShellWord(path) + "*";
    subject.Fail(
        Named(refused, wanted) + "may not be opened: " + who + " has no right to " + rights,
        Grant(facts.me, facts.daemon, refused.front(), wanted.rights, words));
  }
  if (!others.empty() || !refused.empty()) return;
  const std::string count = wanted.takes_fifo ? std::to_string(nodes.size()) + ", " : "";
  subject.Ok(count + who + " may " + rights);
}

void CheckMarker(const Facts& facts, Findings& findings) {
  Subject subject("marker", "marker device " + facts.marker.path, findings);
  if (facts.marker.error == 0) return subject.Ok("it is there");
  subject.Warn(
      WhatIsThere(facts.marker) + ": kvoxd opens the control device with the first command only",
      NodesFix(facts));
}

/// False when inspecting the nodes is pointless.
bool CheckDirectory(const Facts& facts, Findings& findings) {
  const PathFacts& directory = facts.devices;
  Subject subject("devices", "device directory " + directory.path, findings);
  const std::string word = ShellWord(directory.path);
  const bool any = facts.marker.error == 0 || facts.control.error != ENOENT ||
                   !facts.tapouts.empty() || !facts.injects.empty();
  if (directory.error != 0) {
    subject.Fail(WhatIsThere(directory), "mkdir -p " + word + "; " + NodesFix(facts));
  } else if (!S_ISDIR(directory.mode)) {
    subject.Fail(WhatIsThere(directory), "export KVOX_DEV_DIR=/dev");
  } else if (!May(facts.daemon, directory, kRead | kSearch)) {
    subject.Fail(UserOf(facts.daemon) + " has no right to read and search it",
                 Grant(facts.me, facts.daemon, directory, kRead | kSearch, word));
  } else if (!May(facts.me, directory, kRead | kSearch)) {
    subject.Warn("what is in it cannot be seen by " + UserOf(facts.me), kAsRoot);
  } else if (!any) {
    subject.Fail("no node of a co-processor is in it", NodesFix(facts));
  } else {
    subject.Ok(UserOf(facts.daemon) + " may read and search it");
    return true;
  }
  return false;
}

}  // namespace

void CheckDevices(const Facts& facts, Findings& findings) {
  if (!CheckDirectory(facts, findings)) return;
  CheckMarker(facts, findings);
  const bool control = facts.control.error != ENOENT || facts.control.link;
  CheckNodes(facts, kControl, control ? Nodes{facts.control} : Nodes(), findings);
  CheckNodes(facts, kTapOuts, facts.tapouts, findings);
  CheckNodes(facts, kInjects, facts.injects, findings);
}

}  // namespace kvox::client
