#include "buffer/capture_file.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "kvox/common/fixed_text.h"
#include "kvox/common/log.h"

namespace kvox {
namespace {

constexpr mode_t kMode = 0640;
constexpr int kOpenFlags =
    O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | O_LARGEFILE;

class OpenFile : public CaptureFile {
 public:
  OpenFile(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}
  ~OpenFile() override { close(fd_); }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  ssize_t Write(std::span<const std::byte> bytes) override {
    ssize_t written;
    do {
      written = write(fd_, bytes.data(), bytes.size());
    } while (written < 0 && errno == EINTR);
    if (written < 0) {
      const int cause = errno;
      LogError("Capture file %s: %s", path_.c_str(), ErrorText(cause).c_str());
      errno = cause;
    }
    return written;
  }

  bool WriteStart(std::span<const std::byte> bytes) override {
    return pwrite(fd_, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size());
  }

  bool CutTo(uint64_t size) override {
    return ftruncate(fd_, static_cast<off_t>(size)) == 0 && lseek(fd_, 0, SEEK_END) >= 0;
  }

  /// Why nothing may be written here; null when it may. Takes the file for this capture.
  const char* Objection() {
    struct stat status;
    if (fstat(fd_, &status) != 0 || !S_ISREG(status.st_mode) || IsKernels()) {
      return "not a regular file";
    }
    if (status.st_uid != geteuid()) return "it belongs to another user";
    if (status.st_nlink > 1) return "it has a second name";
    // Of the open file: captures of one process exclude each other as well.
    if (flock(fd_, LOCK_EX | LOCK_NB) != 0) {
      return errno == EWOULDBLOCK ? "another capture writes it" : "it cannot be locked";
    }
    return nullptr;
  }

 private:
  /// Whether the kernel interprets writes as commands: such files look like regular ones.
  bool IsKernels() {
    constexpr unsigned kKernels[] = {
        PROC_SUPER_MAGIC,    SYSFS_MAGIC,      DEBUGFS_MAGIC, TRACEFS_MAGIC,  CGROUP_SUPER_MAGIC,
        CGROUP2_SUPER_MAGIC, SECURITYFS_MAGIC, SELINUX_MAGIC, EFIVARFS_MAGIC, BPF_FS_MAGIC};
    struct statfs system;
    return fstatfs(fd_, &system) != 0 ||
           std::ranges::count(kKernels, static_cast<unsigned>(system.f_type)) > 0;
  }

  const int fd_;
  const std::string path_;
};

/// Checked before opening: opening some devices has side effects.
bool IsSomethingElse(const char* path) {
  struct stat status;
  return lstat(path, &status) == 0 && !S_ISREG(status.st_mode);
}

std::unique_ptr<CaptureFile> Refuse(const std::string& path, const char* cause, std::string& why) {
  LogError("Capture file %s cannot be opened: %s; name a file in a directory that can be written",
           path.c_str(), cause);
  why = cause;
  return nullptr;
}

}  // namespace

std::unique_ptr<CaptureFile> OpenCaptureFile(const std::string& path, std::string& why) {
  if (IsSomethingElse(path.c_str())) return Refuse(path, "not a regular file", why);
  const int fd = open(path.c_str(), kOpenFlags, kMode);
  if (fd < 0) return Refuse(path, ErrorText(errno).c_str(), why);
  auto file = std::make_unique<OpenFile>(fd, path);
  if (const char* const objection = file->Objection()) return Refuse(path, objection, why);
  return file;
}

}  // namespace kvox
