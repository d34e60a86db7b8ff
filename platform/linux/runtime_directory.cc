#include "platform/linux/runtime_directory.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

#include "kvox/common/unique_fd.h"

namespace kvox::binder {
namespace {

constexpr char kVariable[] = "KVOX_RUNTIME_DIR";
constexpr char kUserVariable[] = "XDG_RUNTIME_DIR";
constexpr char kSystemDirectory[] = "/run/kvox";
constexpr mode_t kDirectoryMode = 0750;
constexpr size_t kMaxNameSize = 127;

std::string UserDirectory() {
  const std::string parent = DirectoryVariable(kUserVariable);
  return parent.empty() ? "" : parent + "/kvox";
}

/// Creates what is missing of the path. Returns 0 or errno.
int MakeDirectory(const std::string& path) {
  for (size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    const std::string part = path.substr(0, end);
    struct stat status;
    if (mkdir(part.c_str(), kDirectoryMode) == 0) {
      if (const int cause = SetMode(part, S_IFDIR, kDirectoryMode); cause != 0) return cause;
    } else if (const int cause = errno; stat(part.c_str(), &status) != 0) {
      return cause;
    } else if (!S_ISDIR(status.st_mode)) {
      return ENOTDIR;
    }
    if (end == std::string::npos) return 0;
  }
}

/// Why another user could replace our socket, or "".
std::string WhoElseRules(const std::string& path) {
  const auto foreign = [](const struct stat& status) {
    return status.st_uid != 0 && status.st_uid != geteuid();
  };
  struct stat status;
  if (lstat(path.c_str(), &status) != 0) return strerror(errno);
  if (S_ISLNK(status.st_mode) && foreign(status)) {
    return "it is a symbolic link of user " + std::to_string(status.st_uid);
  }
  if (stat(path.c_str(), &status) != 0) return strerror(errno);
  if (foreign(status)) return "it belongs to user " + std::to_string(status.st_uid);
  // In a sticky directory of our own others may make files, but not replace ours.
  const bool shared = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
  const bool keeps_ours = (status.st_mode & S_ISVTX) != 0 && status.st_uid == geteuid();
  return shared && !keeps_ours ? "others may write to it" : "";
}

std::string PathOf(const std::string& directory, const std::string& name, const char* suffix) {
  std::string file = name;
  std::ranges::replace(file, '/', ':');
  return directory + "/" + file + suffix;
}

}  // namespace

std::string DirectoryVariable(const char* name) {
  const char* value = getenv(name);
  std::string path = value == nullptr ? "" : value;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

int SetMode(const std::string& path, mode_t type, mode_t mode) {
  const UniqueFd place(open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat status;
  if (!place.valid() || fstat(place.get(), &status) != 0) return errno;
  if ((status.st_mode & S_IFMT) != type) return type == S_IFDIR ? ENOTDIR : ENOTSOCK;
  const std::string descriptor = "/proc/self/fd/" + std::to_string(place.get());
  return chmod(descriptor.c_str(), mode) == 0 ? 0 : errno;
}

bool IsServiceName(const std::string& name) {
  return !name.empty() && name.size() <= kMaxNameSize && std::ranges::all_of(name, [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("_-./").find(c) != std::string_view::npos;
  });
}

std::string RuntimeDirectory() {
  std::string directory = DirectoryVariable(kVariable);
  if (directory.empty() && geteuid() == 0) directory = kSystemDirectory;
  return directory.empty() ? UserDirectory() : directory;
}

int PrepareRuntimeDirectory(std::string* directory, std::string* error) {
  *directory = RuntimeDirectory();
  if (directory->empty()) {
    *error = std::string("no runtime directory: set ") + kVariable + " or " + kUserVariable;
    return ENOENT;
  }
  const auto refuse = [&](const std::string& why, const char* remedy) {
    *error = "cannot use the runtime directory " + *directory + ": " + why + "; " + remedy +
             ", or set " + kVariable + " to another";
  };
  if (const int cause = MakeDirectory(*directory); cause != 0) {
    refuse(strerror(cause), "make it writable");
    return cause;
  }
  const std::string why = WhoElseRules(*directory);
  if (why.empty()) return 0;
  refuse(why, "give it to the daemon's user and take others' right to write");
  return EPERM;
}

std::vector<std::string> LookupDirectories() {
  if (const std::string only = DirectoryVariable(kVariable); !only.empty()) return {only};
  std::vector<std::string> directories;
  if (const std::string user = UserDirectory(); !user.empty()) directories.push_back(user);
  directories.push_back(kSystemDirectory);
  return directories;
}

std::string SocketPath(const std::string& directory, const std::string& name) {
  return PathOf(directory, name, ".sock");
}
std::string LockPath(const std::string& directory, const std::string& name) {
  return PathOf(directory, name, ".lock");
}

bool MakeAddress(const std::string& path, sockaddr_un* address, std::string* error) {
  *address = {};
  address->sun_family = AF_UNIX;
  if (path.size() >= sizeof address->sun_path) {
    *error = path + " is too long for a socket (" + std::to_string(path.size()) + " bytes, " +
             std::to_string(sizeof address->sun_path - 1) + " at most); set " + kVariable +
             " to a shorter path";
    return false;
  }
  memcpy(address->sun_path, path.c_str(), path.size() + 1);
  return true;
}

}  // namespace kvox::binder
