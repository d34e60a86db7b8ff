#include "platform/platform.h"

#include "platform/linux/runtime_directory.h"

namespace kvox {

std::vector<HelpRow> DaemonVariables() {
  return {
      {"KVOX_DEV_DIR", "Directory that stands for /dev (/dev)"},
      {"KVOX_RUNTIME_DIR",
       "Directory of the service's socket ($XDG_RUNTIME_DIR/kvox; of root /run/kvox)"},
      {"KVOX_WAKE_LOCK_DIR", "Directory of wake_lock and wake_unlock (/sys/power)"},
      {"ANDROID_LOG_TAGS",
       "What is logged: TAG:PRIORITY..., of v d i w e f s; '*:w' is warnings and errors (all)"},
  };
}

std::vector<HelpRow> ClientVariables() {
  return {
      {"KVOX_RUNTIME_DIR",
       "Directory of kvoxd's socket (where there is one: $XDG_RUNTIME_DIR/kvox, /run/kvox)"},
      {"KVOX_DAEMON_USER", "User that kvoxd runs as, besides root and you (kvox)"},
  };
}

/// KVOX_DEV_DIR, else "/dev".
const std::string& DeviceDirectory() {
  static const auto* const directory = [] {
    const std::string path = binder::DirectoryVariable("KVOX_DEV_DIR");
    return new std::string(path.empty() ? "/dev" : path);
  }();
  return *directory;
}

std::string FlightDirectory(std::string* error) {
  std::string directory;
  binder::PrepareRuntimeDirectory(&directory, error);
  return directory;
}

std::vector<std::string> FlightDirectories() {
  return binder::LookupDirectories();
}

}  // namespace kvox
