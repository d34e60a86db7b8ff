// Wake locks through the kernel's two files: `wake_lock` takes a name and lists those held,
// `wake_unlock` takes a name.
#include <errno.h>
#include <fcntl.h>
#include <hardware_legacy/power.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <utility>

#include "kvox/common/log.h"
#include "kvox/common/mutex.h"
#include "kvox/common/unique_fd.h"
#include "platform/platform.h"

namespace kvox {
namespace {

constexpr char kTakeFile[] = "wake_lock";
constexpr char kDropFile[] = "wake_unlock";

std::string PathOf(const char* file) {
  const char* directory = getenv("KVOX_WAKE_LOCK_DIR");
  if (directory == nullptr || *directory == '\0') directory = "/sys/power";
  return std::string(directory) + "/" + file;
}

/// 0, or errno.
int WriteName(const char* file, const char* name) {
  const UniqueFd fd(open(PathOf(file).c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (!fd.valid()) return errno;
  const size_t size = std::strlen(name);
  const ssize_t written = write(fd.get(), name, size);
  if (written < 0) return errno;
  return static_cast<size_t>(written) == size ? 0 : EIO;
}

/// The locks of a machine without these files, with how often each was taken.
struct CountedLocks {
  Mutex mutex;
  std::multiset<std::string> held GUARDED_BY(mutex);
  bool warned GUARDED_BY(mutex) = false;
};

CountedLocks& Counted() {
  static auto* const locks = new CountedLocks;
  return *locks;
}

/// Warns once when there are no such files.
bool KernelHasLocks() {
  if (access(PathOf(kTakeFile).c_str(), F_OK) == 0 &&
      access(PathOf(kDropFile).c_str(), F_OK) == 0) {
    return true;
  }
  CountedLocks& counted = Counted();
  MutexLock lock(counted.mutex);
  if (!std::exchange(counted.warned, true)) {
    LogWarning("No %s: wake locks are counted, but do not keep this machine awake",
               PathOf(kTakeFile).c_str());
  }
  return false;
}

}  // namespace

std::vector<std::string> WakeLockFiles() {
  return {PathOf(kTakeFile), PathOf(kDropFile)};
}

void ReleaseStaleWakeLock(const char* name) {
  if (!KernelHasLocks()) return;
  const UniqueFd fd(open(PathOf(kTakeFile).c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  char held[4096];  // the kernel lists a page at most
  const ssize_t size = fd.valid() ? read(fd.get(), held, sizeof held) : -1;
  if (size <= 0) return;
  std::istringstream names(std::string(held, static_cast<size_t>(size)));
  for (std::string each; names >> each;) {
    if (each != name) continue;
    const int error = WriteName(kDropFile, name);
    if (error != 0) LogWarning("Stale wake lock %s not released: %s", name, std::strerror(error));
    return;
  }
}

}  // namespace kvox

int acquire_wake_lock(int, const char* id) {
  if (kvox::KernelHasLocks()) return -kvox::WriteName(kvox::kTakeFile, id);
  auto& counted = kvox::Counted();
  kvox::MutexLock lock(counted.mutex);
  counted.held.insert(id);
  return 0;
}

int release_wake_lock(const char* id) {
  if (kvox::KernelHasLocks()) return -kvox::WriteName(kvox::kDropFile, id);
  auto& counted = kvox::Counted();
  kvox::MutexLock lock(counted.mutex);
  const auto found = counted.held.find(id);
  if (found == counted.held.end()) return -EINVAL;
  counted.held.erase(found);
  return 0;
}
