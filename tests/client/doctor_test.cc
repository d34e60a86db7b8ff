#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>

#include "client/doctor/findings.h"
#include "client/doctor/gather.h"
#include "client/doctor/rights.h"

namespace kvox::client {
namespace {

using ::testing::HasSubstr;

constexpr uint32_t kMe = 1000;
constexpr uint32_t kService = 990;

PathFacts At(const std::string& path, uint32_t mode, uint32_t owner = kService) {
  return {
      .path = path, .mode = mode, .uid = owner, .gid = kService, .owner = "kvox", .group = "kvox"};
}

PathFacts Missing(const std::string& path) {
  return {.path = path, .error = ENOENT};
}

/// A phone-like machine where all is well: the service runs as kvox, and I am in its group.
Facts Healthy() {
  Facts facts;
  facts.me = {.uid = kMe, .name = "ann", .groups = {kMe, kService}, .group = "kvox"};
  facts.daemon = {.uid = kService, .name = "kvox", .groups = {kService}, .group = "kvox"};
  facts.running = ProcessFacts{.pid = 12, .state = 'S', .rtprio_limit = 99};
  facts.devices = At("/dev", S_IFDIR | 0755, 0);
  facts.marker = At("/dev/kvo", S_IFCHR | 0440);
  facts.control = At("/dev/xdv-kvox_control", S_IFCHR | 0660);
  facts.tapouts = {At("/dev/xdv-kvox_tapout0", S_IFCHR | 0440),
                   At("/dev/xdv-kvox_tapout7", S_IFIFO | 0440)};
  facts.injects = {At("/dev/xdv-kvox_inject0", S_IFCHR | 0220)};
  facts.priority = 99;
  facts.own = {.pid = 13, .rtprio_limit = 0};
  facts.location = SocketLocation{At("/run/kvox", S_IFDIR | 0750),
                                  At("/run/kvox/kvox.IKvox:default.sock", S_IFSOCK | 0660)};
  facts.reply = {.status = kDone, .round_trip_us = 61, .version = 3};
  facts.own_version = 3;
  facts.wake_locks = {At("/sys/power/wake_lock", S_IFREG | 0660),
                      At("/sys/power/wake_unlock", S_IFREG | 0220)};
  facts.captures = At("/tmp", S_IFDIR | 01777, 0);
  facts.free_bytes = 20'000'000'000;
  return facts;
}

std::string Problems(const std::vector<Finding>& findings) {
  std::string text;
  for (const Finding& finding : findings) {
    if (finding.verdict != Verdict::kOk) text += LineOf(finding) + "\n";
  }
  return text;
}

TEST(Doctor, HasNothingAgainstAMachineWhereAllIsWell) {
  const auto findings = Diagnose(Healthy());
  EXPECT_EQ(Problems(findings), "");
  EXPECT_EQ(findings.size(), 13u);
}

TEST(Doctor, NamesWhatIsBrokenWithACommandThatFixesIt) {
  using Break = void (*)(Facts&);
  const struct {
    Break damage;
    const char* line;
  } rows[] = {
      {[](Facts& f) { f.devices = Missing("/my dev"); },
       "failed   device directory /my dev: is not there  fix: mkdir -p '/my dev'; "
       "KVOX_DEV_DIR='/my dev' kvosim >kvosim.log 2>&1 &\n"},
      {[](Facts& f) { f.devices.mode = S_IFDIR | 0700; },
       "user kvox has no right to read and search it  fix: sudo chmod g+rx /dev\n"},
      {[](Facts& f) {
         f.marker = f.control = Missing("x");
         f.tapouts = f.injects = {};
       },
       "no node of a co-processor is in it  fix: sudo dmesg | grep -i kvox\n"},
      {[](Facts& f) { f.control.mode = S_IFREG | 0660; },
       "is a regular file, not a device  fix: rm -ri /dev/xdv-kvox_control\n"},
      {[](Facts& f) {
         f.control = Missing("/dev/xdv-kvox_control");
         f.control.link = true;
       },
       "is a symbolic link to nothing, not a device"},
      {[](Facts& f) { f.tapouts = {}; },
       "failed   tap-out devices /dev/xdv-kvox_tapout*: there is"},
      {[](Facts& f) {
         for (PathFacts& node : f.tapouts) node = At(node.path, S_IFCHR | 0600, 0);
         for (PathFacts& node : f.tapouts) node.gid = 0;
       },
       "xdv-kvox_tapout0 and 1 more: may not be opened: user kvox has no right to read  fix: sudo "
       "chown kvox /dev/xdv-kvox_tapout* && sudo chmod u+r /dev/xdv-kvox_tapout*\n"},
      {[](Facts& f) { f.injects = {}; }, "warning  inject devices"},
      {[](Facts& f) { f.running->rtprio_limit = 98; },
       "its limit of rtprio is 98: packets are late on a busy machine  fix: sudo prlimit "
       "--rtprio=99 --pid 12\n"},
      {[](Facts& f) {
         f.running.reset();
         f.reply = {.status = kNotAllowed, .error = "x"};
       },
       "not known: kvoxd's process cannot be seen by user ann  fix: sudo -E kvoxctl doctor\n"},
      {[](Facts& f) { f.rt_runtime_us = 0; }, "fix: sudo sysctl kernel.sched_rt_runtime_us="},
      {[](Facts& f) { f.location->socket.path.resize(108, 'x'); },
       "has 108 bytes, 107 is the most  fix: export KVOX_RUNTIME_DIR=$(mktemp -d)\n"},
      {[](Facts& f) {
         f.location->socket.path.resize(108, 'x');
         f.daemon = f.me;
         f.reply = {.status = kNoDaemon, .error = "x"};
       },
       "kvoxd: x  fix: export KVOX_RUNTIME_DIR=$(mktemp -d); kvoxd 2>kvoxd.log &\n"},
      {[](Facts& f) { f.location->directory.uid = 5; },
       "and kvoxd (user kvox) refuses it  fix: sudo chown kvox /run/kvox\n"},
      {[](Facts& f) { f.location->directory.mode = S_IFDIR | 0777; },
       "others may write to it, and kvoxd refuses it  fix: sudo chmod go-w /run/kvox\n"},
      {[](Facts& f) { f.me.groups = {kMe}; },
       "user ann has no right to search it  fix: sudo usermod -aG kvox ann && newgrp kvox\n"},
      {[](Facts& f) {
         f.me = {.uid = kMe, .name = "ann", .groups = {kMe}, .group = "ann"};
         f.location->directory.gid = 0;
       },
       "has no right to search it  fix: sudo chgrp ann /run/kvox && sudo chmod g+x /run/kvox\n"},
      {[](Facts& f) { f.location->socket.mode = S_IFSOCK | 0600; },
       "user ann has no right to write to it  fix: sudo chmod g+w /run/kvox/kvox.IKvox:"},
      {[](Facts& f) { f.location->socket.mode = S_IFSOCK | 0666; },
       "every user may call the daemon"},
      {[](Facts& f) {
         f.reply = {.status = kNoDaemon, .error = "x is not in /run/kvox; start the daemon"};
         f.running.reset();
         f.location->socket = Missing("/run/kvox/s");
       },
       "failed   daemon kvoxd: x is not in /run/kvox  fix: sudo systemctl start kvoxd\n"},
      {[](Facts& f) {
         f.reply = {.status = kTimedOut};
         f.waited_s = 5;
       },
       "no answer within 5 s  fix: sudo kill -KILL 12; sleep 1; sudo systemctl start kvoxd\n"},
      {[](Facts& f) {
         f.reply = {.status = kNoDaemon, .error = "does not answer"};
         f.running->state = 'T';
       },
       "process 12 of user kvox is stopped  fix: sudo kill -CONT 12\n"},
      {[](Facts& f) { f.reply.round_trip_us = 2e5; }, "very busy  fix: top -H -p 12\n"},
      {[](Facts& f) { f.reply.version = 2; }, "kvoxd has version 2, kvoxctl version 3"},
      {[](Facts& f) { f.wake_locks[0] = Missing("/sys/power/wake_lock"); },
       "warning  wake lock /sys/power/wake_lock: is not there: wake locks are counted"},
      {[](Facts& f) {
         f.wake_locks[1].mode = S_IFREG | 0200;
         f.wake_locks[1].uid = 0;
       },
       "wake_unlock: user kvox has no right to write: this machine may sleep"},
      {[](Facts& f) { f.free_bytes = 115'200'000; },
       "only 0.12 GB free, 10 min of one buffer at 48 kHz, 2 x 16 bits  fix: df -h; ls -lhS /tmp"},
      {[](Facts& f) { f.captures.mode = S_IFDIR | 0755; }, "warning  captures in /tmp: user kvox"},
      {[](Facts& f) { f.captures = At("/tmp/a.wav", S_IFREG | 0644); },
       "a.wav: is a regular file, not a directory  fix: kvoxctl doctor --captures /tmp\n"},
  };
  for (const auto& row : rows) {
    Facts facts = Healthy();
    row.damage(facts);
    EXPECT_THAT(Problems(Diagnose(facts)), HasSubstr(row.line));
  }
}

TEST(Doctor, RightsGoByTheFirstClassThatAUserIsIn) {
  const User ann = {.uid = 1, .name = "ann", .groups = {10, 11}, .group = "a"};
  PathFacts path = {.path = "p", .mode = 0604, .uid = 2, .gid = 11};
  EXPECT_FALSE(May(ann, path, kRead)) << "the group's, not the others'";
  path.gid = 12;
  EXPECT_TRUE(May(ann, path, kRead));
  EXPECT_FALSE(May(ann, path, kRead | kWrite));
  path.uid = 1;
  EXPECT_TRUE(May(ann, path, kRead | kWrite));
  EXPECT_TRUE(May({.uid = 0, .name = "root", .groups = {}, .group = ""}, path, kSearch));
  EXPECT_EQ(ShellWord("it's"), "'it'\\''s'");
}

TEST(Doctor, ReadsWhatTheKernelTellsOfAProcess) {
  const std::string limits =
      "Limit                     Soft Limit           Hard Limit           Units     \n"
      "Max realtime priority     99                   0                    \n";
  const std::string status =
      "Name:\tkvoxd\nState:\tT (stopped)\nGid:\t9\t8\nGroups:\t27 \nCapEff:\t0000000000800000\n";
  const ProcessFacts facts = ParseProcess(7, limits, status);
  EXPECT_EQ(facts.rtprio_limit, 99u);
  EXPECT_EQ(facts.state, 'T');
  EXPECT_TRUE(facts.sys_nice);
  EXPECT_THAT(facts.groups, ::testing::ElementsAre(9, 8, 27));
  const ProcessFacts unknown = ParseProcess(7, "", "CapEff:\t0000000000400000\n");
  EXPECT_FALSE(unknown.rtprio_limit || unknown.sys_nice);
}

}  // namespace
}  // namespace kvox::client
