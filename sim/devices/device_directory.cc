#include "sim/devices/device_directory.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "sim/socket_path.h"

namespace kvox::sim {
namespace {

constexpr char kLockName[] = ".kvosim.lock";
constexpr mode_t kMode = 0660;
constexpr mode_t kDirectoryMode = 0770;
constexpr mode_t kSocketMode = 0600;

struct KindRow {
  DeviceNode::Kind kind;
  mode_t type;
  const char* name;
};
constexpr KindRow kKinds[] = {
    {DeviceNode::Kind::kEmptyFile, S_IFREG, "file"},
    {DeviceNode::Kind::kSymbolicLink, S_IFLNK, "link"},
    {DeviceNode::Kind::kFifo, S_IFIFO, "fifo"},
    {DeviceNode::Kind::kSocket, S_IFSOCK, "socket"},
    {DeviceNode::Kind::kDirectory, S_IFDIR, "directory"},
};

const KindRow& RowOf(DeviceNode::Kind kind) {
  return *std::ranges::find(kKinds, kind, &KindRow::kind);
}

bool Make(const DeviceNode& node, const std::filesystem::path& path) {
  switch (node.kind) {
    case DeviceNode::Kind::kSymbolicLink:
      return symlink(node.target.c_str(), path.c_str()) == 0;
    case DeviceNode::Kind::kFifo:
      return mkfifo(path.c_str(), kMode) == 0;
    case DeviceNode::Kind::kSocket:
      return BindSocket(node.socket, path) == 0 && chmod(path.c_str(), kSocketMode) == 0;
    case DeviceNode::Kind::kDirectory:
      return mkdir(path.c_str(), kDirectoryMode) == 0;
    case DeviceNode::Kind::kEmptyFile:
      break;
  }
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kMode);
  if (fd >= 0) close(fd);
  return fd >= 0;
}

/// Opens and locks the lock file; -1 with errno EWOULDBLOCK when another process holds it. A holder
/// that ends takes the file away, so what was locked has to be what stands there now.
int Lock(const std::filesystem::path& path) {
  for (;;) {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kMode);
    if (fd < 0) return -1;
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
      const int problem = errno;
      close(fd);
      errno = problem;
      return -1;
    }
    struct stat locked {};
    struct stat named {};
    if (fstat(fd, &locked) == 0 && stat(path.c_str(), &named) == 0 &&
        locked.st_ino == named.st_ino) {
      return fd;
    }
    close(fd);
  }
}

}  // namespace

DeviceDirectory::DeviceDirectory(std::filesystem::path directory, int lock)
    : directory_(std::move(directory)), lock_(lock) {}

std::unique_ptr<DeviceDirectory> DeviceDirectory::Claim(const std::filesystem::path& directory,
                                                        std::string& error) {
  const std::filesystem::path lock_path = directory / kLockName;
  const int lock = Lock(lock_path);
  if (lock < 0 && errno == EWOULDBLOCK) {
    error = fmt::format(
        "{}: another kvosim runs there; end it or set KVOX_DEV_DIR to another "
        "directory",
        directory.string());
    return nullptr;
  }
  if (lock < 0) {
    error = fmt::format(
        "{}: cannot be created ({}); set KVOX_DEV_DIR to a directory that you may "
        "write to",
        lock_path.string(), std::strerror(errno));
    return nullptr;
  }
  std::unique_ptr<DeviceDirectory> claimed(new DeviceDirectory(directory, lock));
  std::ifstream list(lock_path);
  for (std::string kind, name; list >> kind >> name;) {
    const auto* row = std::ranges::find(kKinds, kind, &KindRow::name);
    if (row != std::end(kKinds) && name.find('/') == name.npos)
      claimed->RemoveLeftOver({row->kind, name});
  }
  if (ftruncate(lock, 0) == 0) return claimed;
  error = fmt::format("{}: cannot be written ({})", lock_path.string(), std::strerror(errno));
  return nullptr;
}

DeviceDirectory::~DeviceDirectory() {
  while (!nodes_.empty()) Remove(std::string(nodes_.back().name));
  unlink(PathOf(kLockName).c_str());
  close(lock_);
}

/// Puts the node on the list by which the next simulator clears away what a dead one left. A node
/// that goes and comes again stands there once.
bool DeviceDirectory::Note(const DeviceNode& node) {
  const std::string entry = fmt::format("{} {}\n", RowOf(node.kind).name, node.name);
  if (noted_.contains(entry)) return true;
  if (pwrite(lock_, entry.data(), entry.size(), lseek(lock_, 0, SEEK_END)) !=
      static_cast<ssize_t>(entry.size())) {
    return false;
  }
  noted_.insert(entry);
  return true;
}

bool DeviceDirectory::Create(const DeviceNode& node, std::string& error) {
  const std::filesystem::path path = PathOf(node.name);
  if (Note(node) &&
      (Make(node, path) || (errno == EEXIST && RemoveLeftOver(node) && Make(node, path)))) {
    nodes_.push_back(node);
    return true;
  }
  error = errno == EEXIST
              ? fmt::format(
                    "{}: stands in the way and was not left by kvosim; remove it or set "
                    "KVOX_DEV_DIR to another directory",
                    path.string())
              : fmt::format("{}: cannot be created ({}); check the directory of KVOX_DEV_DIR",
                            path.string(), std::strerror(errno));
  return false;
}

void DeviceDirectory::Remove(const std::string& name) {
  const auto node = std::ranges::find(nodes_, name, &DeviceNode::name);
  if (node == nodes_.end()) return;
  remove(PathOf(name).c_str());
  nodes_.erase(node);
}

/// False with errno EEXIST when what stands there is of another kind, or holds something.
bool DeviceDirectory::RemoveLeftOver(const DeviceNode& node) const {
  const std::filesystem::path path = PathOf(node.name);
  struct stat found {};
  if (lstat(path.c_str(), &found) != 0) return false;
  const bool ours = (found.st_mode & S_IFMT) == RowOf(node.kind).type &&
                    (node.kind != DeviceNode::Kind::kEmptyFile || found.st_size == 0);
  if (ours) return remove(path.c_str()) == 0;
  errno = EEXIST;
  return false;
}

}  // namespace kvox::sim
