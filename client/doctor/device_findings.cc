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

/// What kvoxd wants of the nodes of one kind.
struct Wanted {
  const char* check;
  const char* what;
  const char* name;     // of the node, or what the names begin with
  uint32_t rights;      // that kvoxd needs
  bool takes_fifo;      // as well as a character device
  const char* without;  // what it means when there is none
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

/// Makes the co-processor appear, or tells why it does not.
std::string BringNodes(const Facts& facts) {
  const std::string& directory = facts.devices.path;
  if (directory == "/dev") return Sudo(facts.me) + "dmesg | grep -i kvox";
  return "KVOX_DEV_DIR=" + ShellWord(directory) + " kvosim";
}

bool IsThere(const PathFacts& path) {
  return path.error == 0;
}

bool IsDevice(const PathFacts& node, bool takes_fifo) {
  return node.error == 0 && (S_ISCHR(node.mode) || (takes_fifo && S_ISFIFO(node.mode)));
}

/// The nodes as words of a shell; `nodes` are some of those that are wanted.
std::string WordsFor(const Facts& facts, const Wanted& wanted, const Nodes& nodes) {
  if (nodes.size() == 1) return ShellWord(nodes.front().path);
  return ShellWord(facts.devices.path + "/" + wanted.name) + "*";
}

/// "xdv-kvox_tapout4 and 2 more: "; "" for the only node of its kind.
std::string Named(const Nodes& some, const Wanted& wanted) {
  if (!wanted.takes_fifo) return "";
  const std::string& path = some.front().path;
  const std::string more =
      some.size() > 1 ? " and " + std::to_string(some.size() - 1) + " more: " : ": ";
  return path.substr(path.rfind('/') + 1) + more;
}

void JudgeNodes(const Facts& facts, const Wanted& wanted, const Nodes& nodes, Findings& findings) {
  std::string object = std::string(wanted.what) + " " + facts.devices.path + "/" + wanted.name;
  if (wanted.takes_fifo) object += "*";
  if (nodes.empty()) {
    return findings.push_back({wanted.without_verdict, wanted.check, object,
                               std::string("there is none: ") + wanted.without, BringNodes(facts)});
  }
  const auto report = [&](const Nodes& some, const std::string& cause, const std::string& fix) {
    findings.push_back({Verdict::kFailed, wanted.check, object, Named(some, wanted) + cause, fix});
  };
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
    report(others,
           WhatIsThere(first) + (wanted.takes_fifo ? ", not a device or FIFO" : ", not a device"),
           first.error == EACCES ? kAsRoot : "rm -ri " + ShellWord(first.path));
  }
  const std::string who = UserOf(facts.daemon);
  const std::string rights = NameOf(wanted.rights);
  if (!refused.empty()) {
    report(refused, "may not be opened: " + who + " has no right to " + rights,
           Grant(facts.me, facts.daemon, refused.front(), wanted.rights,
                 WordsFor(facts, wanted, refused)));
  }
  if (!others.empty() || !refused.empty()) return;
  const std::string count = wanted.takes_fifo ? std::to_string(nodes.size()) + ", " : "";
  findings.push_back({Verdict::kOk, wanted.check, object, count + who + " may " + rights});
}

void JudgeMarker(const Facts& facts, Findings& findings) {
  const std::string object = "marker device " + facts.marker.path;
  if (IsThere(facts.marker)) {
    return findings.push_back({Verdict::kOk, "marker", object, "it is there"});
  }
  findings.push_back(
      {Verdict::kWarning, "marker", object,
       WhatIsThere(facts.marker) + ": kvoxd opens the control device with the first command only",
       BringNodes(facts)});
}

/// False when there is no use in looking at nodes.
bool JudgeDirectory(const Facts& facts, Findings& findings) {
  const PathFacts& directory = facts.devices;
  const std::string object = "device directory " + directory.path;
  const std::string word = ShellWord(directory.path);
  const auto fail = [&](const std::string& cause, const std::string& fix) {
    findings.push_back({Verdict::kFailed, "devices", object, cause, fix});
    return false;
  };
  if (!IsThere(directory)) return fail(WhatIsThere(directory), "mkdir -p " + word);
  if (!S_ISDIR(directory.mode)) return fail(WhatIsThere(directory), "export KVOX_DEV_DIR=/dev");
  if (!May(facts.daemon, directory, kRead | kSearch)) {
    return fail(UserOf(facts.daemon) + " has no right to read and search it",
                Grant(facts.me, facts.daemon, directory, kRead | kSearch, word));
  }
  if (!May(facts.me, directory, kRead | kSearch)) {
    findings.push_back({Verdict::kWarning, "devices", object,
                        "what is in it cannot be seen by " + UserOf(facts.me), kAsRoot});
    return false;
  }
  const bool any = IsThere(facts.marker) || facts.control.error != ENOENT ||
                   !facts.tapouts.empty() || !facts.injects.empty();
  if (!any) return fail("no node of a co-processor is in it", BringNodes(facts));
  findings.push_back(
      {Verdict::kOk, "devices", object, UserOf(facts.daemon) + " may read and search it"});
  return true;
}

}  // namespace

void JudgeDevices(const Facts& facts, Findings& findings) {
  if (!JudgeDirectory(facts, findings)) return;
  JudgeMarker(facts, findings);
  const bool control = facts.control.error != ENOENT || facts.control.link;
  JudgeNodes(facts, kControl, control ? Nodes{facts.control} : Nodes(), findings);
  JudgeNodes(facts, kTapOuts, facts.tapouts, findings);
  JudgeNodes(facts, kInjects, facts.injects, findings);
}

}  // namespace kvox::client
