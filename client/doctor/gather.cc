#include "client/doctor/gather.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "client/calls/daemon.h"
#include "client/doctor/probe.h"
#include "client/doctor/process.h"
#include "interface/service_name.h"
#include "kvox/common/device_names.h"
#include "kvox/common/kvox_utils.h"
#include "platform/platform.h"

namespace kvox::client {
namespace {

/// The user and the group that packages make for the daemon.
constexpr char kServiceName[] = "kvox";

std::string UserName(uid_t uid) {
  const passwd* const entry = getpwuid(uid);
  return entry == nullptr ? std::to_string(uid) : entry->pw_name;
}

std::string GroupName(gid_t gid) {
  const group* const entry = getgrgid(gid);
  return entry == nullptr ? std::to_string(gid) : entry->gr_name;
}

/// The service's own group where the person is in it.
std::string GroupOf(const std::vector<uint32_t>& groups) {
  for (const uint32_t number : groups) {
    if (GroupName(number) == kServiceName) return kServiceName;
  }
  return groups.empty() ? "" : GroupName(groups.front());
}

Person LookAtMyself() {
  Person person{.uid = geteuid(), .name = UserName(geteuid()), .groups = {getegid()}, .group = {}};
  std::vector<gid_t> more(static_cast<size_t>(std::max(getgroups(0, nullptr), 0)));
  const int count = getgroups(static_cast<int>(more.size()), more.data());
  more.resize(static_cast<size_t>(std::max(count, 0)));
  person.groups.insert(person.groups.end(), more.begin(), more.end());
  person.group = GroupOf(person.groups);
  return person;
}

/// Somebody, as the system's tables have him.
Person LookAtUser(uid_t uid) {
  Person person{.uid = uid, .name = UserName(uid), .groups = {}, .group = {}};
  const passwd* const entry = getpwuid(uid);
  if (entry == nullptr) return person;
  int count = 256;
  std::vector<gid_t> groups(static_cast<size_t>(count));
  if (getgrouplist(entry->pw_name, entry->pw_gid, groups.data(), &count) < 0) count = 0;
  groups.resize(static_cast<size_t>(std::clamp(count, 0, 256)));
  person.groups.assign(groups.begin(), groups.end());
  person.group = GroupOf(person.groups);
  return person;
}

PathFacts LookAt(const std::string& path) {
  PathFacts facts{.path = path};
  struct stat status {};
  facts.link = lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
  if (stat(path.c_str(), &status) != 0) {
    facts.error = errno;
    return facts;
  }
  facts.mode = status.st_mode;
  facts.uid = status.st_uid;
  facts.gid = status.st_gid;
  facts.owner = UserName(status.st_uid);
  facts.group = GroupName(status.st_gid);
  return facts;
}

/// The nodes whose names go on with a number, by that number.
std::vector<PathFacts> LookAtNodes(const std::string& directory, const std::string& prefix) {
  std::vector<std::string> paths;
  std::error_code error;
  for (std::filesystem::directory_iterator at(directory, error), end; !error && at != end;
       at.increment(error)) {
    const std::string name = at->path().filename();
    if (!name.starts_with(prefix) || name.size() == prefix.size()) continue;
    if (name[prefix.size()] >= '0' && name[prefix.size()] <= '9') paths.push_back(at->path());
  }
  std::sort(paths.begin(), paths.end(), [](const std::string& a, const std::string& b) {
    return std::make_pair(a.size(), a) < std::make_pair(b.size(), b);
  });
  std::vector<PathFacts> nodes;
  for (const std::string& path : paths) nodes.push_back(LookAt(path));
  return nodes;
}

/// Where the daemon's socket is; else where there is a directory for it; else the first place.
std::optional<Place> LookForPlace() {
  std::vector<Place> places;
  for (const std::string& socket : ServiceSockets(KvoxDescriptor())) {
    places.push_back({LookAt(socket.substr(0, socket.rfind('/'))), LookAt(socket)});
  }
  if (places.empty()) return std::nullopt;
  const auto choose = [&](auto is_it) { return std::find_if(places.begin(), places.end(), is_it); };
  auto chosen = choose([](const Place& place) { return place.socket.error != ENOENT; });
  if (chosen == places.end()) {
    chosen = choose([](const Place& place) { return place.directory.error == 0; });
  }
  return chosen == places.end() ? places.front() : *chosen;
}

/// Who kvoxd is: the user of its process, or else of its socket, or of a directory in which a
/// socket cannot be seen; where there is none of these, the user that its package has made, unless
/// somebody runs a daemon of his own in a directory of his own.
Person LookForDaemon(const Facts& facts, const std::optional<ServiceProcess>& process) {
  std::optional<uid_t> uid;
  const char* const own_directory = getenv("KVOX_RUNTIME_DIR");
  if (process) {
    uid = process->user;
  } else if (facts.place && facts.place->socket.error == 0) {
    uid = facts.place->socket.uid;
  } else if (facts.place && facts.place->directory.error == 0 &&
             facts.place->socket.error == EACCES) {
    uid = facts.place->directory.uid;
  } else if (facts.place && (own_directory == nullptr || *own_directory == '\0')) {
    const passwd* const entry = getpwnam(kServiceName);
    if (entry != nullptr) uid = entry->pw_uid;
  }
  return uid && *uid != facts.me.uid ? LookAtUser(*uid) : facts.me;
}

/// The home of the service's user, which may write nowhere else; the daemon's own default for
/// others.
std::string DefaultCaptures(const Person& daemon) {
  const passwd* const entry = getpwnam(kServiceName);
  return entry != nullptr && entry->pw_uid == daemon.uid ? entry->pw_dir : "/tmp";
}

std::optional<int64_t> ReadRealtimeRuntime() {
  int64_t runtime_us = 0;
  std::ifstream file("/proc/sys/kernel/sched_rt_runtime_us");
  return file >> runtime_us ? std::optional(runtime_us) : std::nullopt;
}

uint64_t FreeBytes(const std::string& directory, bool for_root) {
  struct statvfs status {};
  if (statvfs(directory.c_str(), &status) != 0) return 0;
  return uint64_t{for_root ? status.f_bfree : status.f_bavail} * status.f_frsize;
}

void LookAtDevices(Facts& facts) {
  const std::string& directory = DeviceDirectory();
  facts.devices = LookAt(directory);
  facts.marker = LookAt(directory + "/" + kMarkerDevice);
  facts.control = LookAt(directory + "/" + kControlDevice);
  facts.tapouts = LookAtNodes(directory, kTapOutPrefix);
  facts.injects = LookAtNodes(directory, kInjectPrefix);
}

}  // namespace

Facts Gather(const std::string& captures, std::chrono::milliseconds wait) {
  Facts facts;
  facts.answer = AskDaemon(wait);
  facts.waited_s = std::chrono::duration<double>(wait).count();
  facts.own_version = IKvox::version;

  facts.me = LookAtMyself();
  facts.place = LookForPlace();
  std::optional<ServiceProcess> process;
  if (facts.place) process = FindServiceProcess(facts.place->socket.path);
  if (process && process->pid > 0) facts.running = LookAtProcess(process->pid);
  facts.daemon = LookForDaemon(facts, process);
  if (facts.running) {
    const auto& more = facts.running->groups;
    facts.daemon.groups.insert(facts.daemon.groups.end(), more.begin(), more.end());
  }

  LookAtDevices(facts);
  facts.priority = RealtimePriority();
  facts.own = LookAtProcess(getpid());
  facts.rt_runtime_us = ReadRealtimeRuntime();
  for (const std::string& path : WakeLockFiles()) facts.wake_locks.push_back(LookAt(path));
  facts.captures = LookAt(captures.empty() ? DefaultCaptures(facts.daemon) : captures);
  facts.free_bytes = FreeBytes(facts.captures.path, facts.daemon.uid == 0);
  return facts;
}

}  // namespace kvox::client
