// A private directory that is removed with the object, and the device nodes that a test puts there.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "kvox/common/unique_fd.h"

namespace kvox {

/// In TMPDIR or /tmp. Throws std::runtime_error where something cannot be made.
class TempDirectory {
 public:
  TempDirectory() {
    std::string name = std::filesystem::temp_directory_path() / "kvox_test.XXXXXX";
    Require(mkdtemp(name.data()) != nullptr, name);
    path_ = name;
  }
  ~TempDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

  void MakeFifo(const std::string& name) const {
    Require(mkfifo((*this / name).c_str(), 0600) == 0, *this / name);
  }
  void Remove(const std::string& name) const { unlink((*this / name).c_str()); }

 private:
  static void Require(bool made, const std::string& name) {
    if (!made) throw std::runtime_error("cannot make " + name + ": " + std::strerror(errno));
  }

  std::filesystem::path path_;
};

/// The directories that daemon, simulator and client use on a host: dev, run and power (with the
/// wake lock files), closed to others whatever the umask. The environment of this process names
/// them, for itself and for its children.
class HostDirectories : public TempDirectory {
 public:
  HostDirectories() {
    for (const auto& [name, variable] : {std::pair("dev", "KVOX_DEV_DIR"),
                                         {"run", "KVOX_RUNTIME_DIR"},
                                         {"power", "KVOX_WAKE_LOCK_DIR"}}) {
      std::filesystem::create_directory(*this / name);
      std::filesystem::permissions(*this / name, std::filesystem::perms::owner_all);
      setenv(variable, (*this / name).c_str(), 1);
    }
    for (const char* name : {"power/wake_lock", "power/wake_unlock"}) {
      std::ofstream(*this / name) << std::flush;
    }
    unsetenv("ANDROID_LOG_TAGS");
  }
};

}  // namespace kvox
