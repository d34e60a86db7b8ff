#include "sim/devices/device_directory.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <utility>

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

bool BindSocket(int socket, const std::filesystem::path& path) {
  const UniqueFd directory(open(path.parent_path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  const sockaddr_un address = SocketAddress(directory, path.filename());
  if (bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    return chmod(path.c_str(), kSocketMode) == 0;
  }
  if (errno == EADDRINUSE) errno = EEXIST;  // as of any other node
  return false;
}

/// False with errno.
bool Make(const DeviceNode& node, const std::filesystem::path& path) {
  switch (node.kind) {
    case DeviceNode::Kind::kSymbolicLink:
      return symlink(node.target.c_str(), path.c_str()) == 0;
    case DeviceNode::Kind::kFifo:
      return mkfifo(path.c_str(), kMode) == 0;
    case DeviceNode::Kind::kSocket:
      return BindSocket(node.socket, path);
    case DeviceNode::Kind::kDirectory:
      return mkdir(path.c_str(), kDirectoryMode) == 0;
    case DeviceNode::Kind::kEmptyFile:
      break;
  }
  return UniqueFd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kMode)).valid();
}

/// Opens and locks the lock file of a directory. An exiting holder removes the file, so the locked
/// file must still be the one in the directory.
UniqueFd Lock(const std::filesystem::path& directory) {
  const std::filesystem::path path = directory / kLockName;
  for (;;) {
    UniqueFd fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kMode));
    if (fd.valid() && flock(fd.get(), LOCK_EX | LOCK_NB) == 0) {
      struct stat locked {};
      struct stat named {};
      if (fstat(fd.get(), &locked) == 0 && stat(path.c_str(), &named) == 0 &&
          locked.st_ino == named.st_ino) {
        return fd;
      }
    } else if (fd.valid() && errno == EWOULDBLOCK) {
      throw std::runtime_error(fmt::format(
          "{}: another kvosim runs there; end it or set KVOX_DEV_DIR to another directory",
          directory.string()));
    } else {
      throw std::runtime_error(fmt::format(
          "{}: cannot be created ({}); set KVOX_DEV_DIR to a directory that you may write to",
          path.string(), std::strerror(errno)));
    }
  }
}

}  // namespace

DeviceDirectory::DeviceDirectory(std::filesystem::path directory)
    : directory_(std::move(directory)), lock_(Lock(directory_)) {
  std::ifstream list(PathOf(kLockName));
  for (std::string kind, name; list >> kind >> name;) {
    const auto* row = std::ranges::find(kKinds, kind, &KindRow::name);
    if (row != std::end(kKinds) && name.find('/') == name.npos) RemoveLeftOver({row->kind, name});
  }
  if (ftruncate(lock_.get(), 0) == 0) return;
  throw std::runtime_error(
      fmt::format("{}: cannot be written ({})", PathOf(kLockName).string(), std::strerror(errno)));
}

DeviceDirectory::~DeviceDirectory() {
  while (!nodes_.empty()) Remove(std::string(nodes_.back().name));
  unlink(PathOf(kLockName).c_str());
}

/// Records the node for the next simulator, in case this one is killed. A node that returns is
/// recorded once. False with errno.
bool DeviceDirectory::Note(const DeviceNode& node) {
  const std::string entry = fmt::format("{} {}\n", RowOf(node.kind).name, node.name);
  if (noted_.contains(entry)) return true;
  const auto size = static_cast<ssize_t>(entry.size());
  const off_t end = lseek(lock_.get(), 0, SEEK_END);
  if (pwrite(lock_.get(), entry.data(), entry.size(), end) != size) return false;
  noted_.insert(entry);
  return true;
}

void DeviceDirectory::Create(const DeviceNode& node) {
  const std::filesystem::path path = PathOf(node.name);
  if (Note(node) &&
      (Make(node, path) || (errno == EEXIST && RemoveLeftOver(node) && Make(node, path)))) {
    nodes_.push_back(node);
    return;
  }
  throw std::runtime_error(
      errno == EEXIST
          ? fmt::format("{}: stands in the way and was not left by kvosim; remove it or set "
                        "KVOX_DEV_DIR to another directory",
                        path.string())
          : fmt::format("{}: cannot be created ({}); check the directory of KVOX_DEV_DIR",
                        path.string(), std::strerror(errno)));
}

void DeviceDirectory::Remove(const std::string& name) {
  const auto node = std::ranges::find(nodes_, name, &DeviceNode::name);
  if (node == nodes_.end()) return;
  remove(PathOf(name).c_str());
  nodes_.erase(node);
}

/// False with errno EEXIST when what is there is of another kind, or not empty.
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

sockaddr_un SocketAddress(const UniqueFd& directory, const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  fmt::format_to_n(address.sun_path, sizeof address.sun_path - 1, "/proc/self/fd/{}/{}",
                   directory.get(), name);
  return address;
}

}  // namespace kvox::sim
