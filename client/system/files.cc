#include "client/system/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "libkvox/errors.h"

namespace kvox::client {
namespace {

constexpr mode_t kCreateMode = 0666;

/// `what` is "read" or "write"; `name` is a quoted path or "standard input".
[[noreturn]] void Refuse(const char* what, const std::string& name, int cause) {
  throw UsageError(std::string("FILE: cannot ") + what + " " + name + ": " + std::strerror(cause));
}

std::string Quoted(const std::string& path) {
  return "'" + path + "'";
}

UniqueFd OpenRegular(const char* what, const std::string& path, int flags) {
  UniqueFd fd(open(path.c_str(), flags | O_NONBLOCK | O_CLOEXEC, kCreateMode));
  struct stat status {};
  if (!fd.valid() || fstat(fd.get(), &status) != 0) Refuse(what, Quoted(path), errno);
  if (!S_ISREG(status.st_mode)) throw UsageError("FILE: '" + path + "' is not a regular file");
  return fd;
}

std::vector<uint8_t> ReadAll(int fd, const std::string& name, size_t limit) {
  std::vector<uint8_t> data(limit + 1);
  size_t have = 0;
  while (have < data.size()) {
    const ssize_t size = read(fd, &data[have], data.size() - have);
    if (size == 0) break;
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) Refuse("read", name, errno);
    have += static_cast<size_t>(size);
  }
  if (have > limit) {
    throw UsageError("FILE: " + name + " is larger than the " + std::to_string(limit) +
                     " bytes that are read of one");
  }
  data.resize(have);
  return data;
}

}  // namespace

UniqueFd CreateNew(const std::string& path) {
  UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (!fd.valid()) Refuse("create", Quoted(path), errno);
  return fd;
}

std::vector<uint8_t> ReadFile(const std::string& path, size_t limit) {
  return ReadAll(OpenRegular("read", path, O_RDONLY).get(), Quoted(path), limit);
}

std::vector<uint8_t> ReadStandardInput(size_t limit) {
  return ReadAll(STDIN_FILENO, "standard input", limit);
}

UniqueFd OpenToAppend(const std::string& path) {
  return OpenRegular("write", path, O_WRONLY | O_APPEND | O_CREAT);
}

UniqueFd OpenToReplace(const std::string& path) {
  return OpenRegular("write", path, O_WRONLY | O_TRUNC | O_CREAT);
}

void CheckWritable(const std::string& path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0 && errno == ENOENT) {
    OpenRegular("write", path, O_RDWR | O_CREAT | O_EXCL);
    unlink(path.c_str());
  } else if (stat(path.c_str(), &status) == 0 || errno != ENOENT) {  // not a link to nothing
    OpenRegular("write", path, O_RDWR);
  }
}

bool AreSameFile(const std::string& path, const std::string& other) {
  struct stat one {};
  struct stat two {};
  if (stat(path.c_str(), &one) == 0 && stat(other.c_str(), &two) == 0) {
    return one.st_dev == two.st_dev && one.st_ino == two.st_ino;
  }
  const auto whole = [](const std::string& name) {
    std::error_code ignored;
    const auto absolute = std::filesystem::absolute(name, ignored);
    return std::filesystem::weakly_canonical(absolute, ignored);
  };
  return path == other || whole(path) == whole(other);
}

bool WriteAll(int fd, const void* bytes, size_t size) {
  const auto* at = static_cast<const char*>(bytes);
  while (size > 0) {
    const ssize_t written = write(fd, at, size);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    at += written;
    size -= static_cast<size_t>(written);
  }
  return true;
}

}  // namespace kvox::client
