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
#include <iterator>
#include <sstream>

#include "client/flight/log_file.h"
#include "interface/service_name.h"
#include "kvox/common/device_names.h"
#include "kvox/common/kvox_utils.h"
#include "libkvox/calls/daemon.h"
#include "platform/platform.h"

namespace kvox::client {
namespace {

/// The user and the group that packages create for the daemon.
constexpr char kServiceName[] = "kvox";

std::string UserName(uid_t uid) {
  const passwd* const entry = getpwuid(uid);
  return entry == nullptr ? std::to_string(uid) : entry->pw_name;
}

std::string GroupName(gid_t gid) {
  const group* const entry = getgrgid(gid);
  return entry == nullptr ? std::to_string(gid) : entry->gr_name;
}

/// The service's own group where the user is in it.
std::string GroupOf(const std::vector<uint32_t>& groups) {
  for (const uint32_t number : groups) {
    if (GroupName(number) == kServiceName) return kServiceName;
  }
  return groups.empty() ? "" : GroupName(groups.front());
}

User InspectMyself() {
  User user{.uid = geteuid(), .name = UserName(geteuid()), .groups = {getegid()}, .group = {}};
  std::vector<gid_t> more(static_cast<size_t>(std::max(getgroups(0, nullptr), 0)));
  const int count = getgroups(static_cast<int>(more.size()), more.data());
  more.resize(static_cast<size_t>(std::max(count, 0)));
  user.groups.insert(user.groups.end(), more.begin(), more.end());
  user.group = GroupOf(user.groups);
  return user;
}

/// A user as the system's tables have it.
User InspectUser(uid_t uid) {
  User user{.uid = uid, .name = UserName(uid), .groups = {}, .group = {}};
  const passwd* const entry = getpwuid(uid);
  if (entry == nullptr) return user;
  int count = 256;
  std::vector<gid_t> groups(static_cast<size_t>(count));
  if (getgrouplist(entry->pw_name, entry->pw_gid, groups.data(), &count) < 0) count = 0;
  groups.resize(static_cast<size_t>(std::clamp(count, 0, 256)));
  user.groups.assign(groups.begin(), groups.end());
  user.group = GroupOf(user.groups);
  return user;
}

PathFacts Inspect(const std::string& path) {
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

/// The nodes whose names are the prefix and a number, sorted by that number.
std::vector<PathFacts> InspectNodes(const std::string& directory, const std::string& prefix) {
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
  for (const std::string& path : paths) nodes.push_back(Inspect(path));
  return nodes;
}

/// The location of the daemon's socket; else one whose directory exists; else the first one.
std::optional<SocketLocation> FindLocation() {
  std::vector<SocketLocation> locations;
  for (const std::string& socket : ServiceSockets(KvoxDescriptor())) {
    locations.push_back({Inspect(socket.substr(0, socket.rfind('/'))), Inspect(socket)});
  }
  if (locations.empty()) return std::nullopt;
  const auto choose = [&](auto is_it) {
    return std::find_if(locations.begin(), locations.end(), is_it);
  };
  auto chosen =
      choose([](const SocketLocation& location) { return location.socket.error != ENOENT; });
  if (chosen == locations.end()) {
    chosen = choose([](const SocketLocation& location) { return location.directory.error == 0; });
  }
  return chosen == locations.end() ? locations.front() : *chosen;
}

/// The user that kvoxd runs as: the owner of its process, or else of its socket, or of a directory
/// that cannot be searched; otherwise the user that its package creates, unless KVOX_RUNTIME_DIR
/// shows that users run their own daemons.
User FindDaemonUser(const Facts& facts, const std::optional<ServiceProcess>& process) {
  std::optional<uid_t> uid;
  const char* const own_directory = getenv("KVOX_RUNTIME_DIR");
  if (process) {
    uid = process->user;
  } else if (facts.location && facts.location->socket.error == 0) {
    uid = facts.location->socket.uid;
  } else if (facts.location && facts.location->directory.error == 0 &&
             facts.location->socket.error == EACCES) {
    uid = facts.location->directory.uid;
  } else if (facts.location && (own_directory == nullptr || *own_directory == '\0')) {
    const passwd* const entry = getpwnam(kServiceName);
    if (entry != nullptr) uid = entry->pw_uid;
  }
  return uid && *uid != facts.me.uid ? InspectUser(*uid) : facts.me;
}

/// The home of the service's user, which may not write anywhere else; the daemon's own default for
/// other users.
std::string DefaultCaptures(const User& daemon) {
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

void InspectDevices(Facts& facts) {
  const std::string& directory = DeviceDirectory();
  facts.devices = Inspect(directory);
  facts.marker = Inspect(directory + "/" + kMarkerDevice);
  facts.control = Inspect(directory + "/" + kControlDevice);
  facts.tapouts = InspectNodes(directory, kTapOutPrefix);
  facts.injects = InspectNodes(directory, kInjectPrefix);
}

constexpr uint64_t kMinuteNs = 60'000'000'000;
constexpr int kSysNice = 23;  // the kernel's number of CAP_SYS_NICE

std::string ReadText(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

/// The words after `name` on the line that starts with it; none when no line does.
std::vector<std::string> WordsAfter(const std::string& name, const std::string& text) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (!line.starts_with(name)) continue;
    std::istringstream words(line.substr(name.size()));
    return {std::istream_iterator<std::string>(words), {}};
  }
  return {};
}

std::string WordAfter(const std::string& name, const std::string& text) {
  const auto words = WordsAfter(name, text);
  return words.empty() ? "" : words.front();
}

std::optional<uint64_t> ReadNumber(const std::string& word, int base) {
  std::istringstream stream(word);
  uint64_t number = 0;
  if (base == 16) stream >> std::hex;
  return stream >> number ? std::optional(number) : std::nullopt;
}

/// A log that cannot be read is nothing that keeps audio away.
void InspectAudio(Facts& facts) {
  const auto path = FindFlight();
  std::string error;
  const auto flight = path ? flight::ReadFlight(*path, {}, &error) : std::nullopt;
  if (!flight || !flight->live) return;
  facts.has_flight_log = true;
  const uint64_t end_ns = EndOf(*flight);
  const uint64_t from_ns = end_ns - std::min(end_ns, kMinuteNs);
  uint64_t covered_from_ns = from_ns;
  for (const auto& stream : flight->streams) {
    covered_from_ns = std::max(covered_from_ns, CoveredFrom(stream, from_ns));
    std::ranges::move(FindIncidents(*flight, stream, from_ns), std::back_inserter(facts.incidents));
  }
  facts.covered_ns = end_ns - std::min(end_ns, covered_from_ns);
}

}  // namespace

ProcessFacts ParseProcess(int pid, const std::string& limits, const std::string& status) {
  ProcessFacts facts{.pid = pid};
  const std::string limit = WordAfter("Max realtime priority", limits);
  facts.rtprio_limit =
      limit == "unlimited" ? std::optional<uint64_t>(UINT64_MAX) : ReadNumber(limit, 10);
  const std::string state = WordAfter("State:", status);
  if (!state.empty()) facts.state = state.front();
  for (const char* const name : {"Gid:", "Groups:"}) {
    for (const std::string& word : WordsAfter(name, status)) {
      if (const auto group = ReadNumber(word, 10)) {
        facts.groups.push_back(static_cast<uint32_t>(*group));
      }
    }
  }
  const uint64_t capabilities = ReadNumber(WordAfter("CapEff:", status), 16).value_or(0);
  facts.sys_nice = (capabilities >> kSysNice & 1) != 0;
  return facts;
}

ProcessFacts InspectProcess(int pid) {
  const std::string folder = "/proc/" + std::to_string(pid);
  return ParseProcess(pid, ReadText(folder + "/limits"), ReadText(folder + "/status"));
}

Facts GatherFacts(const std::string& captures, std::chrono::milliseconds wait) {
  Facts facts;
  facts.reply = ProbeDaemon(wait);
  facts.waited_s = std::chrono::duration<double>(wait).count();
  facts.own_version = IKvox::version;

  facts.me = InspectMyself();
  facts.location = FindLocation();
  std::optional<ServiceProcess> process;
  if (facts.location) process = FindServiceProcess(facts.location->socket.path);
  if (process && process->pid > 0) facts.running = InspectProcess(process->pid);
  facts.daemon = FindDaemonUser(facts, process);
  if (facts.running) {
    const auto& more = facts.running->groups;
    facts.daemon.groups.insert(facts.daemon.groups.end(), more.begin(), more.end());
  }

  InspectDevices(facts);
  InspectAudio(facts);
  facts.priority = RealtimePriority();
  facts.own = InspectProcess(getpid());
  facts.rt_runtime_us = ReadRealtimeRuntime();
  for (const std::string& path : WakeLockFiles()) facts.wake_locks.push_back(Inspect(path));
  facts.captures = Inspect(captures.empty() ? DefaultCaptures(facts.daemon) : captures);
  facts.free_bytes = FreeBytes(facts.captures.path, facts.daemon.uid == 0);
  return facts;
}

}  // namespace kvox::client
