#include "kvox/flight/mapping.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string_view>
#include <utility>

#include "kvox/common/fixed_text.h"
#include "kvox/common/kvox_utils.h"

namespace kvox::flight {
namespace {

constexpr mode_t kMode = 0640;
constexpr char kAllow[] = "let the daemon's user write to that directory";
constexpr char kNewFileName[] = "/flight.new";
constexpr char kLockName[] = "/flight.lock";

File* Map(int fd, int flags) {
  void* const memory = mmap(nullptr, sizeof(File), PROT_READ | PROT_WRITE, flags, fd, 0);
  return memory == MAP_FAILED ? nullptr : static_cast<File*>(memory);
}

/// Locks the file, but nothing beyond its end, until its last descriptor is closed. False, with
/// errno set, when another process has locked it.
bool Lock(int fd) {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  lock.l_len = sizeof(File);
  return fcntl(fd, F_OFD_SETLK, &lock) == 0;
}

void WriteHeader(FileHeader& header, const char* program) {
  header.magic = kMagic;
  header.version = kVersion;
  header.pid = static_cast<uint32_t>(getpid());
  header.file_size = sizeof(File);
  header.started_ns = GetTimestampNs();
  std::string_view(program).copy(header.program.data(), header.program.size() - 1);
  header.wall_offset_ns.store(WallClockNs() - header.started_ns, std::memory_order_relaxed);
}

}  // namespace

Mapping::Mapping() : file_(Map(-1, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE)) {}

Mapping::~Mapping() {
  if (file_ != nullptr) munmap(file_, sizeof(File));
}

std::string Mapping::MoveToFile(const std::string& directory, const char* program) {
  const std::string path = directory + kLockName;
  lock_ = UniqueFd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kMode));
  if (!lock_.valid()) {
    return "cannot open " + path + ": " + ErrorText(errno).c_str() + "; " + kAllow;
  }
  if (!Lock(lock_.get())) {
    return "cannot lock " + path + ": " + ErrorText(errno).c_str() +
           "; end the other daemon that uses the directory";
  }
  return CreateFile(directory, program);
}

std::string Mapping::CreateFile(const std::string& directory, const char* program) {
  const std::string path = directory + "/" + kFileName;
  const std::string new_path = directory + kNewFileName;
  unlink(new_path.c_str());  // of a daemon that ended while it was here
  UniqueFd fd(open(new_path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kMode));
  File* file = nullptr;
  const auto failed = [&](const char* what, const char* next_step) {
    const int cause = errno;
    if (file != nullptr) munmap(file, sizeof(File));
    if (fd.valid()) unlink(new_path.c_str());
    return std::string("cannot ") + what + " " + path + ": " + ErrorText(cause).c_str() + "; " +
           next_step;
  };
  if (!fd.valid()) return failed("create", kAllow);
  fchmod(fd.get(), kMode);  // whatever the umask
  const bool sized = ftruncate(fd.get(), sizeof(File)) == 0;
  const int no_room = sized ? posix_fallocate(fd.get(), 0, offsetof(File, streams)) : errno;
  errno = no_room;
  if (no_room != 0) return failed("make room for", "free some on its disk");
  file = Map(fd.get(), MAP_SHARED);
  if (file == nullptr || !Lock(fd.get())) return failed("map", "use a local file system");
  WriteHeader(file->header, program);
  const bool kept = rename(path.c_str(), (directory + "/" + kPreviousFileName).c_str()) == 0;
  if ((!kept && errno != ENOENT) || rename(new_path.c_str(), path.c_str()) != 0) {
    return failed("replace", kAllow);
  }
  if (file_ != nullptr) munmap(file_, sizeof(File));
  file_ = file;
  fd_ = std::move(fd);
  return "";
}

int Mapping::Provide(StreamSlot& slot) {
  auto* const begin = reinterpret_cast<std::byte*>(&slot);
  if (fd_.valid()) {
    const auto offset = begin - reinterpret_cast<std::byte*>(file_);
    const int no_room = posix_fallocate(fd_.get(), offset, sizeof slot);
    if (no_room != 0) return no_room;
  }
  mlock(begin, sizeof slot);
  for (size_t at = 0; at < sizeof slot; at += kPage) {  // also where it may not be locked
    reinterpret_cast<Word*>(begin + at)->fetch_add(0, std::memory_order_relaxed);
  }
  return 0;
}

}  // namespace kvox::flight
